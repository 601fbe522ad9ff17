// SPDX-License-Identifier: Apache-2.0
#include "places.h"

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <host/log.h>

#include "attack.h"

namespace nelvo::testkit {

const std::vector<Place> PLACES = {
    {"no folder", "rmdir $D"},
    {"a folder for all", "chmod 777 $D", "other users may enter it"},
    {"a folder to read only", "chmod 500 $D", "Permission denied"},
    {"a folder not to enter", "chmod 600 $D", "Permission denied"},
    {"the longest path", "true", nullptr, 107},
    {"a longer one", "true", "too long", 108},
    {"a file for a socket", "touch $S", "there is something that is no socket"},
    {"a link for a socket", "ln -s elsewhere $S", "there is something that is no socket"},
    {"a socket that takes nobody", "true", "served already", 0, true},
    {"a link for a lock", "ln -s elsewhere $S.lock", "Too many levels"},
    {"a folder for a lock", "mkdir $S.lock", "Is a directory"},
    {"a pipe for a lock", "mkfifo -m 600 $S.lock"},
};

namespace {

namespace fs = std::filesystem;

const std::string SOCKET = "/demo.hello:message";

bool run(const std::string &command) {
    return std::system(command.c_str()) == 0;
}

// Somebody listens at it who never takes a client, and as many wait as he lets.
void putBusySocket(const std::string &path) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int busy = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bind(busy, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    listen(busy, 0);
    const RawSocket waiting(path);
}

// What the superuser may do shows nothing.
void beAnyUser() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2]{};
    syscall(SYS_capset, &header, none);
}

bool isRefused(const std::string &folder, const char *reason) {
    std::string log;
    const auto keep = [](log_priority, const char *, const char *text, void *data) {
        *static_cast<std::string *>(data) += text;
    };
    host_log_set_sink(keep, &log);
    try {
        const LocalTarget target(folder);
        return false;
    } catch (const std::runtime_error &) {
        host_log_set_sink(nullptr, nullptr);
        return log.find(reason) != std::string::npos;
    }
}

} // namespace

bool standsAt(const std::string &home, const Place &place) {
    std::string folder = home;
    if (place.pathBytes > 0)
        folder.append(place.pathBytes - folder.size() - SOCKET.size(), 'x');
    setenv("D", folder.c_str(), 1);
    setenv("S", (folder + SOCKET).c_str(), 1);
    if (!run("mkdir -m 700 $D") || !run(place.prepare))
        return false;
    if (place.isBusy)
        putBusySocket(folder + SOCKET);
    beAnyUser();
    if (place.refusal) {
        if (!isRefused(folder, place.refusal) || !run("chmod 700 $D && rm -rf $D"))
            return false;
        folder = home;
    }
    LocalTarget target(folder);
    const RawSession honest = target.record({"greet"});
    Attack none(target, honest);
    none.finish();
    return none.holds() && fs::status(folder).permissions() == fs::perms::owner_all;
}

} // namespace nelvo::testkit
