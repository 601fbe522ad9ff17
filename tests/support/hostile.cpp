// SPDX-License-Identifier: Apache-2.0
#include "hostile.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <sstream>

#include <sys/resource.h>
#include <unistd.h>

#include <host/sim.h>

#include "attack.h"
#include "places.h"

namespace nelvo::testkit {
namespace {

constexpr unsigned LONGEST_ATTACK_SECONDS = 120; // on a busy machine
constexpr double MORE_THAN_A_REQUEST = 31;

bool isControl(char byte) {
    return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f';
}

// An entry of the log: a level, who says it, what; and nothing that a client might have added to it.
bool isLogLine(const std::string &line) {
    return line.size() > 2 && std::string("VDIWEF").find(line[0]) != std::string::npos &&
           line[1] == ' ' && line.find(": ") != std::string::npos && line.find("FORGED") != 2 &&
           std::none_of(line.begin(), line.end(), isControl);
}

void checkLog(Attack &attack, const std::string &log) {
    std::istringstream lines(log);
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        attack.must(isLogLine(line), "line " + std::to_string(number) + " of the log is not one");
    }
}

// Of this process, for the attacker's own sockets.
void allowManyDescriptors() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

bool report(const std::string &name, const Attack &attack) {
    for (const std::string &complaint : attack.complaints())
        std::fprintf(stderr, "FAILED: %s: %s\n", name.c_str(), complaint.c_str());
    return attack.holds();
}

bool attackHere(const std::string &folder, const AttackRow &row) {
    LocalTarget target(folder);
    const RawSession honest = target.record({"greet"});
    Attack attack(target, honest);
    row.run(attack);
    attack.finish();
    target.pass(MORE_THAN_A_REQUEST);
    attack.must(host_sim_timer_count() == 0, "timers are left");
    return report(row.name, attack);
}

bool attackExample(const std::string &folder, const std::string &program, const AttackRow &row) {
    const RawSession honest =
        LocalTarget(folder).record({"greet"}); // it says what the example does
    ExampleTarget target(folder, program, row.logLevel, EXAMPLE_DESCRIPTORS);
    Attack attack(target, honest);
    row.run(attack);
    attack.finish();
    attack.must(target.isAlive(), "the example has died");
    checkLog(attack, target.log());
    return report(row.name + " (example)", attack);
}

} // namespace

Tally sweepHostilePeers(const std::string &example, int every, int first) {
    const SocketFolder folder;
    Tally total;
    int next = first;
    // Each in a folder of its own: whom the one before has left may take a while to die.
    const auto play = [&](const std::string &name,
                          const std::function<bool(const std::string &)> &holds) {
        if (next++ % every != 0)
            return;
        const std::string home = folder.path() + "/" + std::to_string(++total.points);
        const Outcome outcome = inChild(name, [&] {
            alarm(LONGEST_ATTACK_SECONDS);
            allowManyDescriptors();
            return holds(home) ? Outcome::HELD : Outcome::BROKEN;
        });
        total.failures += outcome == Outcome::BROKEN;
    };
    for (const AttackRow &row : attacks()) {
        if (row.where != AttackRow::EXAMPLE)
            play(row.name, [&](const std::string &home) { return attackHere(home, row); });
        if (row.where != AttackRow::LOCAL)
            play(row.name,
                 [&](const std::string &home) { return attackExample(home, example, row); });
    }
    for (const Place &place : PLACES)
        play(place.name, [&](const std::string &home) {
            const bool stands = standsAt(home, place);
            if (!stands)
                std::fprintf(stderr, "FAILED: %s where the socket is to be\n", place.name);
            return stands;
        });
    return total;
}

} // namespace nelvo::testkit
