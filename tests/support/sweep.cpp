// SPDX-License-Identifier: Apache-2.0
#include "sweep.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>

#include <fnmatch.h>
#include <sys/mman.h>

#include <host/sim.h>
#include <nelvo.h>

#include "allocation_faults.h"
#include "child.h"
#include "platform_faults.h"

namespace nelvo::testkit {
namespace {

bool matchesAny(const std::string &text, const std::vector<std::string> &patterns) {
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::string &pattern) {
        return fnmatch(pattern.c_str(), text.c_str(), 0) == 0;
    });
}

std::vector<std::string> playHere(const Point &point, const std::vector<std::string> &logPatterns,
                                  bool &reached) {
    Simulation device;
    Play play(device, point.check);
    const std::size_t bar = std::min(point.script.find('|'), point.script.size());
    const std::string before = point.script.substr(0, bar);
    const std::string behind = point.script.substr(std::min(bar + 1, point.script.size()));
    play.play(before);
    point.arm(); // from here on only what plays may allocate
    play.play(behind);
    reached = point.disarm();

    // A singleton that there was no memory for is missing for good.
    const bool isWhole = nelvo_initialize() == NELVO_ERROR_NONE;
    nelvo_deinitialize();
    if (isWhole && reached)
        play.finishHealthily();
    device.takeWarnings(); // what the script does late it does on purpose
    std::vector<std::string> complaints = play.complaints();
    for (const LogLine &line : device.log())
        if (!line.function.empty() && !matchesAny(line.summary(), logPatterns))
            complaints.push_back("log line that is not documented: " + line.summary());
    if (host_sim_timer_count() != 0)
        complaints.push_back("a timer is left");
    return complaints;
}

// How many blocks a process in good health keeps when all is over, the singletons and what the
// platform holds for good: measured by the first point, which plays without a fault, for all
// others.
long &keptBlocks() {
    static void *shared =
        mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return *static_cast<long *>(shared);
}

Outcome playWhole(const Point &point, const std::vector<std::string> &logPatterns) {
    const long blocksBefore = liveBlocks();
    bool reached = true;
    std::vector<std::string> complaints;
    try {
        complaints = playHere(point, logPatterns, reached);
    } catch (const std::exception &error) {
        complaints.push_back(std::string("exception: ") + error.what());
    }
    if (liveHandles() != NO_HANDLES)
        complaints.push_back("left: " + liveHandles());
    else if (complaints.empty()) { // a complaint is a block itself
        const long blocks = liveBlocks() - blocksBefore;
        if (keptBlocks() == 0)
            keptBlocks() = blocks;
        if (blocks > keptBlocks())
            complaints.push_back(std::to_string(blocks - keptBlocks()) + " blocks are left");
    }
    for (const std::string &complaint : complaints)
        std::fprintf(stderr, "%s: %s\n", point.script.c_str(), complaint.c_str());
    return !complaints.empty() ? Outcome::BROKEN : reached ? Outcome::HELD : Outcome::NOT_REACHED;
}

} // namespace

Outcome inChild(const std::string &name, const std::function<Outcome()> &work,
                std::chrono::milliseconds limit) {
    const int code = Child([&] { return static_cast<int>(work()); }, Child::INHERITED).wait(limit);
    for (const Outcome outcome : {Outcome::HELD, Outcome::NOT_REACHED, Outcome::BROKEN})
        if (code == static_cast<int>(outcome))
            return outcome;
    std::fprintf(stderr, "%s: died, hung or leaked, status %d\n", name.c_str(), code);
    return Outcome::BROKEN;
}

Outcome playPoint(const Point &point, const std::vector<std::string> &logPatterns,
                  std::chrono::milliseconds limit) {
    keptBlocks(); // mapped before there is a child
    return inChild(
        point.script, [&] { return playWhole(point, logPatterns); }, limit);
}

std::vector<std::string> readScripts(const std::string &folder) {
    std::vector<std::string> scripts = readTable(folder + "/scenarios.txt");
    const std::pair<const char *, const char *> places[] = {
        {"IJA|{", "}R"}, {"IJS|{", "}T"}, {"IJW|{", "}L."}};
    for (const auto &[before, behind] : places)
        for (const std::string &deed : readTable(folder + "/deeds.txt"))
            scripts.push_back(before + deed + behind);
    return scripts;
}

std::vector<std::string> readTable(const std::string &path) {
    std::ifstream file(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        if (!line.empty() && line[0] != '#')
            lines.push_back(line);
    return lines;
}

} // namespace nelvo::testkit
