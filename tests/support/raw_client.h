// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

// A client that is made of bytes, right ones and wrong ones: docs/host-platform.md describes frames
// and hellos, docs/client-guide.md parcels.
namespace nelvo::testkit {

namespace wire {

// The lowest byte is the first.
inline std::string number(std::uint32_t value) {
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

inline std::string frame(const std::string &payload) {
    return number(static_cast<std::uint32_t>(payload.size())) + payload;
}

inline std::string text(const std::string &value) {
    return frame(value + '\0');
}

enum Channel : char { MAIN, CALLBACK };

// The token is cut or filled up to its 16 bytes.
inline std::string hello(char channel, const std::string &token, const std::string &sender) {
    return frame(std::string("NVRP\x01") + channel + (token + std::string(16, 't')).substr(0, 16) +
                 static_cast<char>(sender.size()) + sender);
}

// Entries of a bundle, and bundles.
enum Type : char { TEXT = 1, TEXTS = 2, BYTES = 3 };

inline std::string entry(char type, const std::string &key, const std::string &value) {
    return type + text(key) + value;
}

inline std::string bundleOf(std::uint32_t count, const std::string &entries) {
    return frame(number(count) + entries);
}

// Framed parcels for the library.
inline std::string method(int id, const std::string &arguments) {
    return frame(number(static_cast<std::uint32_t>(id)) + arguments);
}

inline std::string setCb() {
    return method(2, number(1) + number(1) + '\0');
}

inline std::string request(const std::string &actionId, const std::string &params) {
    return method(4, bundleOf(2, entry(TEXT, "actionId", text(actionId)) +
                                     entry(TEXT, "actionParams", text(params))));
}

} // namespace wire

// One socket of a client. Nothing waits.
class RawSocket {
public:
    explicit RawSocket(const std::string &path)
        : _fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        _connected = connect(_fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    }
    explicit RawSocket(int fd) : _fd(fd) {}
    RawSocket(const RawSocket &) = delete;
    RawSocket &operator=(const RawSocket &) = delete;
    ~RawSocket() { close(_fd); }

    bool isConnected() const { return _connected; } // perhaps not yet accepted

    // Returns how many bytes the socket took.
    std::size_t say(std::string_view bytes) const {
        const ssize_t count = send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    // Sends a descriptor beside the byte.
    void passDescriptor(char byte) const {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(_fd))] = {};
        iovec part{&byte, 1};
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
    void endSpeech() const { shutdown(_fd, SHUT_WR); }

    // All that has been heard so far.
    const std::string &heard() {
        char bytes[1 << 16];
        ssize_t count = 0;
        while (!_ended && (count = recv(_fd, bytes, sizeof bytes, MSG_DONTWAIT)) > 0)
            _heard.append(bytes, static_cast<std::size_t>(count));
        _ended = _ended || count == 0 || errno == ECONNRESET;
        return _heard;
    }
    // The other side has closed or reset the connection.
    bool hasEnded() {
        heard();
        return _ended;
    }

private:
    int _fd;
    bool _connected = true;
    bool _ended = false;
    std::string _heard;
};

} // namespace nelvo::testkit
