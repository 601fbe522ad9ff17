// SPDX-License-Identifier: Apache-2.0
// Replaces the global operator new, the host library's included; so include it in one source only.
#pragma once

#include <cstdlib>
#include <new>

namespace allocations {

inline long done = 0;
inline long untilFailure = -1; // negative: none fails

inline void *allocate(std::size_t size) {
    done++;
    if (untilFailure >= 0 && untilFailure-- == 0)
        return nullptr;
    return std::malloc(size != 0 ? size : 1);
}

// Calls operate(subject) on a new subject each, with the first allocation failing, then the second
// and so on until it gets by without a failure; check(subject, result, hasFailed) follows each
// with no failure in store. Returns how many failed.
template <typename Prepare, typename Operate, typename Check>
int failEach(Prepare prepare, Operate operate, Check check) {
    for (int failed = 0;; failed++) {
        auto subject = prepare();
        untilFailure = failed;
        const auto result = operate(subject);
        const bool hasFailed = untilFailure < 0;
        untilFailure = -1;
        check(subject, result, hasFailed);
        if (!hasFailed)
            return failed;
    }
}

} // namespace allocations

void *operator new(std::size_t size) {
    void *memory = allocations::allocate(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}

void *operator new(std::size_t size, const std::nothrow_t &) noexcept {
    return allocations::allocate(size);
}

// Not inlined: the compiler would take free() for a mismatch of the new it sees beside it.
[[gnu::noinline]] void operator delete(void *memory) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, std::size_t) noexcept {
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void *memory, const std::nothrow_t &) noexcept {
    std::free(memory);
}
