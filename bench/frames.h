// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "clock.h"
#include "harness.h"

// The least that two processes need to trade bytes: a length and that many bytes, over a Unix-domain
// connection for requests and another one for answers.
namespace bench {

// A frame, its length in front; room for the longest payload that is measured and more.
class Frame {
public:
    Frame() : _bytes(2 << 20, '\0') {}

    void fill(const std::string &payload) {
        const auto length = static_cast<std::uint32_t>(payload.size());
        std::memcpy(_bytes.data(), &length, sizeof length);
        std::memcpy(_bytes.data() + sizeof length, payload.data(), length);
    }
    char *data() { return _bytes.data(); }
    std::size_t capacity() const { return _bytes.size(); }
    std::size_t size() const {
        std::uint32_t length = 0;
        std::memcpy(&length, _bytes.data(), sizeof length);
        return sizeof length + length;
    }

private:
    std::string _bytes;
};

// Calls that wait by themselves.
struct Blocking {
    static constexpr int SOCKET_FLAGS = 0;
    explicit Blocking(int) {}
    void untilReadable() {}
};

// Waits for what there is to read, as a main loop does.
class Epoll {
public:
    static constexpr int SOCKET_FLAGS = SOCK_NONBLOCK;
    explicit Epoll(int fd) : _poll(epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN;
        check(epoll_ctl(_poll, EPOLL_CTL_ADD, fd, &event) == 0, "watch a socket");
    }
    void untilReadable() {
        epoll_event event{};
        check(epoll_wait(_poll, &event, 1, -1) == 1, "wait");
    }

private:
    int _poll;
};

// One process's end: sends frames on one connection and receives them on the other.
template <typename Wait>
class Link {
public:
    Link(int receiving, int sending) : _receiving(receiving), _sending(sending), _wait(receiving) {}

    // False: the other side has gone.
    bool receive(Frame &frame) {
        for (std::size_t received = 0; received < 4 || received < frame.size();) {
            _wait.untilReadable();
            const ssize_t count =
                recv(_receiving, frame.data() + received, frame.capacity() - received, 0);
            if (count <= 0)
                return false;
            received += static_cast<std::size_t>(count);
        }
        return true;
    }

    void send(Frame &frame) {
        for (std::size_t sent = 0; sent < frame.size();) {
            const ssize_t count = ::send(_sending, frame.data() + sent, frame.size() - sent, 0);
            if (count > 0) {
                sent += static_cast<std::size_t>(count);
                continue;
            }
            check(errno == EAGAIN, "send");
            pollfd writable{_sending, POLLOUT, 0};
            check(poll(&writable, 1, -1) == 1, "wait");
        }
    }

private:
    int _receiving;
    int _sending;
    Wait _wait;
};

inline sockaddr_un socketIn(const std::string &folder) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, (folder + "/socket").c_str(), sizeof address.sun_path - 1);
    return address;
}

inline int listenIn(const std::string &folder) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = socketIn(folder);
    check(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0, "bind");
    check(listen(fd, 2) == 0, "listen");
    return fd;
}

template <typename Wait>
int connectTo(const std::string &folder) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | Wait::SOCKET_FLAGS, 0);
    const sockaddr_un address = socketIn(folder);
    check(connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0,
          "connect");
    return fd;
}

template <typename Wait>
class FrameClient : public Client {
public:
    FrameClient(int requests, int answers, std::size_t payload) : _link(answers, requests) {
        _request.fill(text(payload));
    }

    void roundTrip() override {
        _link.send(_request);
        require(_link.receive(_answer) && _answer.size() == _request.size(),
                "get the payload back");
    }

private:
    Link<Wait> _link;
    Frame _request;
    Frame _answer;
};

template <typename Wait>
Peer frames() {
    const auto serve = [](const Options &options, int readyFd) {
        const int listener = listenIn(options.folder);
        reportReady(readyFd);
        const int requests = accept4(listener, nullptr, nullptr, Wait::SOCKET_FLAGS);
        const int answers = accept4(listener, nullptr, nullptr, Wait::SOCKET_FLAGS);
        Link<Wait> link(requests, answers);
        for (Frame frame; link.receive(frame);)
            link.send(frame);
    };
    const auto connect = [](const Options &options) -> std::unique_ptr<Client> {
        const int requests = connectTo<Wait>(options.folder);
        const int answers = connectTo<Wait>(options.folder);
        return std::make_unique<FrameClient<Wait>>(requests, answers, options.payload);
    };
    return {serve, connect};
}

} // namespace bench
