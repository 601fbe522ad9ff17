// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <numeric>

namespace nelvo::testkit::soak {

constexpr std::size_t HONEST = 5;
constexpr std::size_t HOSTILE = 3;
constexpr const char *APP = "demo.app";

// What becomes of a request. The application knows: it sees the order in which requests come.
enum Fate : std::uint8_t { UNKNOWN, ANSWERED, OVERTAKEN };

struct Entry {
    std::atomic<std::uint8_t> fate;    // set by the application
    std::atomic<std::uint8_t> answers; // counted by the client
};

// How much the application holds at a moment.
struct Level {
    long residentKiB, blocks, timers, descriptors;
    char handles[80];
};

// What the processes of a soak share; in virtual time they are one. All zero at the start.
struct Ledger {
    std::size_t requests; // of the honest clients; request i is client i % HONEST's
    bool isVirtual;
    std::atomic<std::uint64_t> limit[HONEST]; // how many each of them may have sent by now
    std::atomic<std::uint64_t> done[HONEST];  // how many of them have met their fate
    std::atomic<std::uint64_t>
        stateRequest; // the pending one of client 0, which asks for the state
    std::atomic<std::uint64_t> timedOut, wrong;
    std::atomic<std::uint64_t> acts[HOSTILE];
    std::atomic<std::int64_t> watchMilliseconds; // 0: it has not answered yet
    std::atomic<bool> calm;                      // the hostile clients are to go,
    std::atomic<bool> gone[HOSTILE];
    std::atomic<bool> stop;
    std::atomic<int> asked, told; // for the level: it is as of question `told`
    Level level;
    Level start, end;           // before the library's start and after its end
    Level afterTenth, farthest; // after the first tenth, and the one that differs most from it
    Entry *entries;             // one per request

    template <std::size_t COUNT>
    static std::uint64_t sum(const std::atomic<std::uint64_t> (&values)[COUNT]) {
        return std::accumulate(std::begin(values), std::end(values), std::uint64_t{0});
    }
    std::uint64_t finished() const { return sum(done); }
};

// In memory that child processes share.
Ledger &makeLedger(std::size_t requests, bool isVirtual);

} // namespace nelvo::testkit::soak
