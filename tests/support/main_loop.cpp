// SPDX-License-Identifier: Apache-2.0
#include "main_loop.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <set>
#include <thread>

#include "process.h"
#include "soak_clients.h"
#include "soak_report.h"
#include "worker.h"

namespace nelvo::testkit::soak {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr seconds TRACED(3);
constexpr seconds WATCH(30);
constexpr milliseconds WATCH_TOLERANCE(100);
constexpr seconds SETTLES(7); // incomplete connections are given up after 5 s
constexpr seconds IDLE(60);
constexpr std::uint64_t FLOOD = 1000; // more than the pace of any hostile client

// What the player may do once its loop runs: calls that can't block, and those told not to.
const std::regex ALLOWED(
    R"((epoll_wait|epoll_ctl|close|shutdown|getsockopt|prlimit64|brk|mmap|munmap|mremap|madvise)\(.*)"
    R"(|(rt_sig\w+|unlink|exit_group|newfstatat|fstat|getpid|getuid|geteuid)\(.*)"
    R"(|(accept4|socket)\(.*SOCK_NONBLOCK.*)"
    R"(|(recvfrom|recvmsg|sendmsg|sendto)\(.*MSG_DONTWAIT.*)"
    R"(|openat\(.*allow_list\.dat".*)"
    R"(|(read|lseek)\(\d+<(/.*/allow_list\.dat|anon_inode:\[signalfd\])>.*)"
    R"(|futex\(.*FUTEX_WAKE.*|(---|\+\+\+) .*)");

// Asks for what is never completed, and measures how long the library takes to say so.
class WatchedClient : public Client {
public:
    explicit WatchedClient(Ledger &ledger) : Client(ledger, "honest.watched") {}

    bool turn() override {
        if (join() && !_sent) {
            _since = Clock::now();
            _sent = _proxy->send(client::makeRequest({"record", 1, {}, {}}).get()) == 0;
        }
        return !_sent;
    }

private:
    void answered(const client::Answer &answer) override {
        const auto took = Clock::now() - _since;
        if (!answer.response.succeeded())
            _ledger.watchMilliseconds = std::chrono::duration_cast<milliseconds>(took).count();
    }

    Clock::time_point _since;
    bool _sent = false;
};

// Attacks the player until enough() or for so long.
template <typename Condition>
void flood(Ledger &ledger, seconds limit, Condition enough) {
    const auto attack = [&] { return HostileClient(ledger, 0).run(); };
    Worker first(attack), second(attack);
    for (const auto end = Clock::now() + limit; Clock::now() < end && !enough();) {
        ledger.done[0] += FLOOD;
        std::this_thread::sleep_for(milliseconds(1));
    }
}

struct Calls {
    std::uint64_t all = 0;
    std::uint64_t blocking = 0;
};

// Of a log of strace: the calls from the loop's first wait on, and before that those that open
// sockets. Names the first one of each kind that may block.
Calls readCalls(const std::string &log) {
    std::ifstream file(log);
    std::set<std::string> named;
    Calls calls;
    bool inLoop = false;
    for (std::string line; std::getline(file, line);) {
        line.erase(0, line.find_first_not_of("0123456789 ")); // the process
        const std::string name = line.substr(0, line.find('('));
        inLoop = inLoop || name == "epoll_wait";
        if (!inLoop && name != "socket")
            continue;
        ++calls.all;
        if (std::regex_match(line, ALLOWED))
            continue;
        ++calls.blocking;
        if (named.insert(name).second)
            std::printf("  may block: %s\n", line.c_str());
    }
    return calls;
}

void traceCalls(const std::string &player, Report &report) {
    const std::string log = std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/calls");
    Ledger &ledger = makeLedger(0, false);
    // -D: the child is the player, strace a grandchild.
    Process traced("/usr/bin/strace", {"-D", "-f", "-y", "-o", log, player});
    flood(ledger, TRACED, [] { return false; });
    traced.signal(SIGTERM);
    const int exitCode = traced.wait();
    const Calls calls = readCalls(log);
    if (calls.all == 0) {
        report.line("system calls under attack", "not looked at: strace may not trace here");
        return;
    }
    report.line("acts of hostile clients while it is traced", ledger.acts[0], ledger.acts[0] > 0);
    report.line("system calls of the player meanwhile", calls.all,
                exitCode == 0 && calls.all > ledger.acts[0]);
    report.line("  that may block, but for the loop's wait", calls.blocking, calls.blocking == 0);
}

void awaitWatch(Report &report) {
    Ledger &ledger = makeLedger(0, false);
    Worker watched([&] { return WatchedClient(ledger).run(); });
    flood(ledger, WATCH + seconds(5), [&] { return ledger.watchMilliseconds != 0; });
    const milliseconds took(ledger.watchMilliseconds);
    report.line("acts of hostile clients during the watch", ledger.acts[0], ledger.acts[0] > 0);
    report.line("  it answers after, ms", static_cast<unsigned long long>(took.count()),
                std::chrono::abs(took - WATCH) <= WATCH_TOLERANCE);
}

// How often the process has been given the processor; 0 when it does not run.
std::uint64_t timesRun(pid_t pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    std::uint64_t times = 0, count = 0;
    for (std::string word; file >> word;)
        if (word.find("voluntary_ctxt_switches:") != std::string::npos && file >> count)
            times += count;
    return times;
}

void leaveAlone(pid_t player, Report &report) {
    std::this_thread::sleep_for(SETTLES);
    const std::uint64_t before = timesRun(player);
    std::this_thread::sleep_for(IDLE);
    report.line("wake-ups in 60 s, left alone", timesRun(player) - before,
                before > 0 && timesRun(player) == before);
}

} // namespace

bool keepsItsMainLoop(const std::string &player) {
    Report report("The player's main loop");
    setenv("NELVO_HOST_APP_ID", APP, 1);
    setenv("NELVO_LOG", "silent", 1); // or its log fills the pipe, which nobody reads meanwhile
    traceCalls(player, report);
    const Process untraced(player, {});
    awaitWatch(report);
    leaveAlone(untraced.pid(), report);
    return report.holds();
}

} // namespace nelvo::testkit::soak
