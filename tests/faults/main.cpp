// SPDX-License-Identifier: Apache-2.0
// Makes everything that can fail do so, in turn, in every scenario, each time in a process of its
// own, and looks at what is left. `faults [EVERY]` tries each EVERYth point only.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "allocation_faults.h"
#include "platform_faults.h"
#include "sweep.h"

namespace {

using namespace nelvo::testkit;

int openDescriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

class Sweeps {
public:
    explicit Sweeps(int every) : _every(every) {
        play({_scenarios.front()}); // without a fault: for what the others may keep
    }

    void platformCalls() {
        for (const FailableCall &call : failableCalls()) {
            int reached = 0;
            for (const std::string &script : _scenarios)
                for (const int error : call.errors)
                    reached += each(script, [&](Point &point, int nth) {
                        point.arm = [=] { failPlatformCall(call.function, error, nth); };
                        point.disarm = [] { return stopFailing() > 0; };
                    });
            std::printf("%-42s %5d points\n", call.function, reached);
            if (reached == 0 && _every == 1)
                fail(std::string(call.function) + " never failed");
        }
    }

    void allocations() {
        int reached = 0;
        for (const std::string &script : _scripts)
            for (const bool always : {false, true})
                reached += each(script, [&](Point &point, int nth) {
                    point.arm = [=] { failAllocation(nth, always); };
                    point.disarm = [] { return stopFailingAllocations() > 0; };
                });
        std::printf("%-42s %5d points\n", "allocations", reached);
    }

    int finish() {
        if (openDescriptors() != _descriptors)
            fail("descriptors are left");
        std::printf("faults: %d points, %d failures\n", _points, _failures);
        return _points > 0 && _failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }

private:
    static constexpr int MOST_CALLS = 100;

    // Fails call 1, 2, 3 ... until there is no such call any more, or something does not hold;
    // gives how many there were.
    int each(const std::string &script, const std::function<void(Point &, int)> &prepare) {
        int reached = 0;
        const int first = 1 + _offset++ % _every;
        if (first > MOST_CALLS) // of a sample: no script makes so many calls
            return 0;
        for (int nth = first;; nth += _every, ++reached) {
            Point point{script};
            prepare(point, nth);
            if (!play(point))
                break;
        }
        return reached;
    }

    // False: the fault has not come to pass, or something does not hold.
    bool play(const Point &point) {
        const Outcome outcome = playPoint(point, _logPatterns);
        _points += outcome != Outcome::NOT_REACHED;
        if (outcome == Outcome::BROKEN)
            fail(point.script);
        return outcome == Outcome::HELD;
    }

    void fail(const std::string &what) {
        ++_failures;
        std::fprintf(stderr, "FAILED: %s\n", what.c_str());
    }

    const std::vector<std::string> _scenarios = readTable(TABLES "/faults/scenarios.txt");
    const std::vector<std::string> _scripts =
        readScripts(TABLES "/faults"); // the scenarios and more
    const std::vector<std::string> _logPatterns = readTable(TABLES "/faults/log_lines.txt");
    const int _descriptors = openDescriptors();
    const int _every;
    int _offset = 0; // spreads the points that are tried
    int _points = 0;
    int _failures = 0;
};

} // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IONBF, 0); // or each child would print what is buffered
    Sweeps sweeps(argc > 1 ? std::atoi(argv[1]) : 1);
    sweeps.platformCalls();
    sweeps.allocations();
    return sweeps.finish();
}
