// SPDX-License-Identifier: Apache-2.0
#include "tap.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <dlog.h>
#include <host/tap.h>

#include "log_tag.h"
#include "loop.h"

namespace host {

int Tap::socket = -1;

void Tap::open() {
    const char *const given = std::getenv(HOST_TAP_VARIABLE);
    if (!given || isOpen())
        return;
    char *end = nullptr;
    const long number = std::strtol(given, &end, 10);
    struct stat status {};
    if (end == given || *end != '\0' || number < 0 || number > INT32_MAX ||
        fstat(static_cast<int>(number), &status) != 0 || !S_ISSOCK(status.st_mode)) {
        dlog_print(DLOG_WARN, LOG_TAG, "nothing is watched: %s is \"%s\", which is no open socket",
                   HOST_TAP_VARIABLE, given);
        return;
    }
    socket = static_cast<int>(number);
    fcntl(socket, F_SETFD, FD_CLOEXEC);
}

void Tap::writeBytes(const void *bytes, std::size_t size) {
    for (const char *at = static_cast<const char *>(bytes); size > 0 && isOpen();) {
        const ssize_t sent = send(socket, at, size, MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
            socket = -1; // nobody watches any more
        at += sent < 0 ? 0 : sent;
        size -= sent < 0 ? 0 : static_cast<std::size_t>(sent);
    }
}

void Tap::writeLine(const char *event, const std::string &connection, std::size_t size) {
    char line[256];
    const std::int64_t now = Loop::instance().now();
    std::snprintf(line, sizeof line, "%lld.%09d %s %s %zu\n",
                  static_cast<long long>(now / 1'000'000'000),
                  static_cast<int>(now % 1'000'000'000), event, connection.c_str(), size);
    writeBytes(line, std::strlen(line));
}

void Tap::write(const char *event, const std::string &connection, const void *bytes,
                std::size_t size) {
    writeLine(event, connection, size);
    writeBytes(bytes, size);
}

void Tap::write(const char *event, const std::string &connection, const Parcel &parcel) {
    writeLine(event, connection, parcel.size());
    parcel.forEachPiece(
        [](const Memory &, const void *data, std::size_t size) { writeBytes(data, size); });
}

} // namespace host

rpc_port_parcel_h host_parcel_create(const void *bytes, size_t size) {
    rpc_port_parcel_h parcel = nullptr;
    if (rpc_port_parcel_create(&parcel) != RPC_PORT_ERROR_NONE)
        return nullptr;
    try {
        static_cast<host::Parcel *>(parcel)->bytes.append(bytes, size);
        return parcel;
    } catch (const std::bad_alloc &) {
        rpc_port_parcel_destroy(parcel);
        return nullptr;
    }
}
