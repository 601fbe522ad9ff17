// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#include <time.h>
#include <unistd.h>

namespace bench {

// Monotonic, in nanoseconds.
inline std::int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

// Tells whoever started this process that it serves, and how long it says that its start took.
inline bool reportReady(int fd, std::int64_t nanoseconds = 0) {
    return write(fd, &nanoseconds, sizeof nanoseconds) == sizeof nanoseconds && close(fd) == 0;
}

} // namespace bench
