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

    void reset(int fd = -1) {
        if (_fd >= 0)
            close(_fd);
        _fd = fd;
    }

private:
    int _fd = -1;
};

} // namespace host
