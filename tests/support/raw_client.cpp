// SPDX-License-Identifier: Apache-2.0
#include "raw_client.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace nelvo::testkit {
namespace wire {

std::string number(std::uint32_t value) {
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string frame(const std::string &payload) {
    return number(static_cast<std::uint32_t>(payload.size())) + payload;
}

std::string text(const std::string &value) {
    return frame(value + '\0');
}

std::string hello(char channel, const std::string &token, const std::string &sender) {
    std::string bytes("NVRP\x01", 5);
    bytes += channel;
    bytes += (token + std::string(16, 't')).substr(0, 16);
    return frame(bytes + static_cast<char>(sender.size()) + sender);
}

std::string freshToken() {
    static std::uint32_t last = 0;
    return number(++last) + number(static_cast<std::uint32_t>(getpid()));
}

std::string entry(char type, const std::string &key, const std::string &value) {
    return type + text(key) + value;
}

std::string bundleOf(const std::vector<std::string> &entries) {
    std::string bytes = number(static_cast<std::uint32_t>(entries.size()));
    for (const std::string &one : entries)
        bytes += one;
    return frame(bytes);
}

std::string method(int id, const std::string &arguments) {
    return frame(number(static_cast<std::uint32_t>(id)) + arguments);
}

std::string setCb() {
    return method(2, number(1) + number(1) + '\0');
}

std::string request(const std::string &actionId, const std::string &params) {
    return method(4, bundleOf({entry(TEXT, "actionId", text(actionId)),
                               entry(TEXT, "actionParams", text(params))}));
}

} // namespace wire

RawSocket::RawSocket(const std::string &path)
    : _fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    _connected = connect(_fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
}

RawSocket::RawSocket(RawSocket &&other) noexcept
    : _fd(std::exchange(other._fd, -1)), _connected(other._connected), _ended(other._ended),
      _heard(std::move(other._heard)) {}

RawSocket::~RawSocket() {
    if (_fd >= 0)
        close(_fd);
}

std::size_t RawSocket::say(std::string_view bytes) const {
    const ssize_t count = send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void RawSocket::passDescriptor(std::string_view bytes) const {
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(_fd))] = {};
    iovec part{const_cast<char *>(bytes.data()), bytes.size()};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr *const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(_fd));
    std::memcpy(CMSG_DATA(header), &_fd, sizeof(_fd));
    sendmsg(_fd, &message, MSG_NOSIGNAL);
}

void RawSocket::endSpeech() const {
    shutdown(_fd, SHUT_WR);
}

const std::string &RawSocket::heard() {
    char bytes[1 << 16];
    ssize_t count = 0;
    while (!_ended && (count = recv(_fd, bytes, sizeof bytes, 0)) > 0)
        _heard.append(bytes, static_cast<std::size_t>(count));
    _ended = _ended || count == 0 || errno == ECONNRESET;
    return _heard;
}

bool RawSocket::hasEnded() {
    heard();
    return _ended;
}

} // namespace nelvo::testkit
