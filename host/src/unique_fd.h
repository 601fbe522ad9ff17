// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <utility>

#include <unistd.h>

namespace host {

// Owns one descriptor; -1 is none.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : _fd(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : _fd(std::exchange(other._fd, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        reset(std::exchange(other._fd, -1));
        return *this;
    }
    ~UniqueFd() { reset(); }

    int get() const { return _fd; }
    explicit operator bool() const { return _fd >= 0; }

    int release() { return std::exchange(_fd, -1); }
    void reset(int fd = -1) {
        if (_fd >= 0)
            close(_fd);
        _fd = fd;
    }

private:
    int _fd = -1;
};

// A descriptor that belongs to this process alone: fork() leaves it to the parent, and the child's copy
// is closed at once. So a child keeps no port bound and changes nothing in the parent's epoll instance.
// Except on a simulated device, whose sockets lead nowhere else.
class ParentsFd {
public:
    ParentsFd() : ParentsFd(UniqueFd()) {}
    explicit ParentsFd(UniqueFd fd);
    ParentsFd(const ParentsFd &) = delete;
    ParentsFd &operator=(const ParentsFd &) = delete;
    ~ParentsFd();

    int get() const { return _fd.get(); }
    explicit operator bool() const { return static_cast<bool>(_fd); }
    void reset(int fd = -1) { _fd.reset(fd); }

private:
    static void closeAllInChild();

    UniqueFd _fd;
    ParentsFd *_next = nullptr; // in the list of all
    ParentsFd *_previous = nullptr;
};

} // namespace host
