// SPDX-License-Identifier: Apache-2.0
// Makes everything that can fail do so, in turn, in every scenario, each time in a process of its
// own, and looks at what is left. `faults [EVERY]` tries each EVERYth point only.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <string>

#include <fcntl.h>
#include <fnmatch.h>
#include <sys/wait.h>
#include <unistd.h>

#include <host/sim.h>
#include <nelvo.h>

#include "allocation_faults.h"
#include "platform_faults.h"
#include "play.h"

namespace {

using namespace nelvo::testkit;

// What comes before the bar goes well; the faults come behind it.
const char *const SCENARIOS[] = {
    // start and stop
    "|I",
    "|ID",
    "|IDI",
    "I|I",
    "I|D",
    "|IJ",
    "I|J",
    "I|C",
    "IJ|X",
    "IJ|K",
    "IJ|J",
    "IJ2J|D",
    // registration
    "I|A",
    "IA|A",
    "IA|a",
    "IA|N",
    "I|S",
    "IS|S",
    "IS|s",
    "I|AS",
    "IAS|as",
    // an action, completed at once, later, twice, too late, never
    "IJA|{F}R",
    "IJA|RF",
    "IJA|RFF",
    "IJA|R_",
    "IJA|R_F",
    "IJA|RGF",
    "IJA|RaF",
    "IJA|{D}R",
    "IJA|{DIJ}R",
    "IJA|{R}RF",
    "IJA|{X}RF",
    "IJAR|F",
    "IJAR|_",
    "IJAR|D",
    // the state
    "IJS|{F}T",
    "IJS|TF",
    "IJS|TFF",
    "IJS|T_",
    "IJ|T",
    "IJS|T_F",
    "IJS|TGF",
    "IJS|{D}T",
    "IJS|{DIJ}T",
    "IJST|F",
    "IJST|_",
    // the wait for a registration
    "IJ|W-",
    "IJ|W.L{F}.",
    "IJ|W..L.F",
    "IJ|WD",
    "IJ|WL{D}.",
    "IJ|WL{DIJ}.",
    "IJW|L.F",
    "IJW|-",
    // one request overtakes another, of another client perhaps
    "IJAS|RTF",
    "IJAS|TRF",
    "IJAS|WRF",
    "IJA2J|R2RF",
    "IJAS2J|T2RF_",
    "IJA|RRRRF",
    "IJA|RBF",
    // clients that come and go
    "IJA|RXF",
    "IJA|RKF",
    "IJA|RXJRF",
    "IC|T",
    "IJA|X2JR2RF",
    "IJS|{F}T{F}T{F}TXJ{F}T",
};

// What an application may do from inside a callback; each with each place that calls one.
const char *const PLACES[] = {"IJA%R", "IJS%T", "IJW%L."};
const char *const DEEDS[] = {
    "I",  "D",   "DI",   "DIJ",   "DIJA", "DF", "F",    "FF",   "FD",   "G",   "A",  "a",  "N",
    "S",  "s",   "L",    "l",     "as",   "X",  "XF",   "XJ",   "XJF",  "K",   "KF", "2J", "2J2R",
    "R",  "RF",  "T",    "TF",    "W",    "W-", "W.L",  "-",    "_",    "_F",  ".",  "B",  "AR",
    "ST", "DIR", "DIJT", "DIJAR", "aAF",  "RD", "WDIJ", "DDII", "XXJJ", "_DIJ"};

enum Outcome : int { HELD, NOT_REACHED, BROKEN };

std::vector<std::string> documentedLines;

int openDescriptors() {
    int count = 0;
    for ([[maybe_unused]] const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
        ++count;
    return count;
}

void checkLog(const Simulation &device, std::vector<std::string> &complaints) {
    for (const LogLine &line : device.log()) {
        if (line.tag != "NELVO-APPSDK" && line.tag != "RPC_PORT_STUB")
            continue;
        const std::string text =
            std::string(1, "??VDIWEF"[line.priority]) + " " + line.function + ": " + line.message;
        bool known = false;
        for (const std::string &pattern : documentedLines)
            known = known || fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
        if (!known)
            complaints.push_back("log line that is not documented: " + text);
    }
}

// One point, in a process of its own: arms the fault at the bar, plays on, and looks around.
Outcome playOnce(const std::string &scenario, Play::Check check, const std::function<void()> &arm,
                 const std::function<bool()> &disarm) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(20); // a hang ends as a death
        std::vector<std::string> complaints;
        bool reached = true;
        try {
            Simulation device;
            const int timers = host_sim_timer_count();
            Play play(device, check);
            const std::size_t bar = scenario.find('|');
            const std::string behind = scenario.substr(bar + 1);
            play.play(scenario.substr(0, bar));
            arm();
            play.play(behind);
            reached = disarm();
            // A singleton that there was no memory for is missing for good.
            const bool isWhole = nelvo_initialize() == NELVO_ERROR_NONE;
            nelvo_deinitialize();
            if (isWhole && reached)
                play.finishHealthily();
            complaints = play.complaints();
            checkLog(device, complaints);
            if (host_sim_timer_count() != timers)
                complaints.push_back("a timer is left");
        } catch (const std::exception &error) {
            complaints.push_back(std::string("exception: ") + error.what());
        }
        if (liveHandles() != "0 bundles, 0 parcels, 0 stubs, 0 app infos")
            complaints.push_back("left: " + liveHandles());
        for (const std::string &complaint : complaints)
            std::fprintf(stderr, "%s: %s\n", scenario.c_str(), complaint.c_str());
        std::exit(!complaints.empty() ? BROKEN : reached ? HELD : NOT_REACHED);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) <= BROKEN)
        return static_cast<Outcome>(WEXITSTATUS(status));
    std::fprintf(stderr, "%s: died, status %d\n", scenario.c_str(), status);
    return BROKEN;
}

class Sweeps {
public:
    explicit Sweeps(int every) : _every(every) {}

    void allocations() {
        for (const char *scenario : SCENARIOS)
            for (const bool always : {false, true})
                each(
                    [&](int nth) {
                        return playOnce(
                            scenario, Play::Check::INVARIANTS, [&] { failAllocation(nth, always); },
                            [] { return stopFailingAllocations() > 0; });
                    },
                    std::string(scenario) + (always ? ", no memory from " : ", no memory at "));
    }

    void platformCalls() {
        for (const FailableCall &call : failableCalls()) {
            int reached = 0;
            for (const char *scenario : SCENARIOS)
                for (const int error : call.errors)
                    reached += each(
                        [&](int nth) {
                            return playOnce(
                                scenario, Play::Check::INVARIANTS,
                                [&] { failPlatformCall(call.function, error, nth); },
                                [] { return stopFailing() > 0; });
                        },
                        std::string(scenario) + ", " + call.function + " at ");
            if (reached == 0)
                fail(std::string(call.function) + " is never called");
        }
    }

    void reentrancy() {
        for (const std::string place : PLACES)
            for (const char *deed : DEEDS) {
                std::string scenario = place;
                scenario.replace(scenario.find('%'), 1, "|{" + std::string(deed) + "}");
                count(playOnce(
                          scenario, Play::Check::MODEL, [] {}, [] { return true; }),
                      scenario);
            }
        for (const char *scenario : SCENARIOS)
            count(playOnce(
                      scenario, Play::Check::MODEL, [] {}, [] { return true; }),
                  scenario);
    }

    int finish(int descriptors) {
        if (openDescriptors() != descriptors)
            fail("descriptors are left");
        std::printf("faults: %d points, %d failures\n", _points, _failures);
        return _failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    }

private:
    // Tries 1, 2, 3 ... until there is no such call any more; gives how many there were.
    int each(const std::function<Outcome(int)> &point, const std::string &name) {
        for (int nth = 1 + _skipped % _every;; nth += _every) {
            const Outcome outcome = point(nth);
            if (outcome == NOT_REACHED) {
                ++_skipped;
                return nth - 1;
            }
            count(outcome, name + std::to_string(nth));
        }
    }

    void count(Outcome outcome, const std::string &name) {
        ++_points;
        if (outcome == BROKEN)
            fail(name);
    }

    void fail(const std::string &name) {
        ++_failures;
        std::fprintf(stderr, "FAILED: %s\n", name.c_str());
    }

    int _every;
    int _skipped = 0;
    int _points = 0;
    int _failures = 0;
};

void readDocumentedLines() {
    FILE *file = std::fopen(LOG_LINES, "r");
    char line[500];
    while (file && std::fgets(line, sizeof line, file))
        documentedLines.emplace_back(line, std::strcspn(line, "\n"));
    if (file)
        std::fclose(file);
}

} // namespace

int main(int argc, char **argv) {
    readDocumentedLines();
    const int descriptors = openDescriptors();
    Sweeps sweeps(argc > 1 ? std::atoi(argv[1]) : 1);
    sweeps.reentrancy();
    sweeps.platformCalls();
    sweeps.allocations();
    return sweeps.finish(descriptors);
}
