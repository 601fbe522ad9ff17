// SPDX-License-Identifier: Apache-2.0
#include "soak.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include <host/sim.h>

#include "platform_faults.h"
#include "soak_application.h"
#include "soak_clients.h"
#include "soak_report.h"
#include "worker.h"

namespace nelvo::testkit::soak {
namespace {

using Clock = std::chrono::steady_clock;
using Pass = std::function<void()>; // lets everybody get on a little

constexpr std::size_t TENTHS = 10;
#ifdef __SANITIZE_ADDRESS__
constexpr long TOLERANCE_KIB = 1L << 30; // the sanitizer keeps what is freed
#else
constexpr long TOLERANCE_KIB = 256;
#endif
// The platform keeps a few large blocks, and a short first tenth may not have met them all.
constexpr std::uint64_t SHORT_RUN = 100'000;
constexpr long KEPT_KIB = 10 << 10;
// Each connection may keep two buffers, and a client that registers for the first time takes three.
constexpr long TOLERANCE_BLOCKS = 2 * HONEST + 3 * HOSTILE;
constexpr int PATIENT_QUESTIONS = 500;
constexpr int QUESTIONS = 20; // at first
constexpr std::chrono::seconds STUCK(20);
constexpr int PASSES_PER_WATCH = 10;
constexpr double PASS_SECONDS = 0.001;
constexpr double WATCH_SECONDS = 31;
constexpr const char *MANIFEST =
    "<manifest><ui-application appid='demo.app'><metadata value='1.0' "
    "key='http://developer.tizen.org/tizen/metadata/nelvo/sdk/version'/></ui-application>"
    "</manifest>";

void await(const Ledger &ledger, const Pass &pass, const std::function<bool()> &condition) {
    std::uint64_t finished = ledger.finished();
    for (auto since = Clock::now(); !condition(); finished = ledger.finished()) {
        pass();
        if (ledger.finished() != finished)
            since = Clock::now();
        if (Clock::now() - since > STUCK)
            throw std::runtime_error("nobody gets on any more");
    }
}

// Less is no fault: the platform may have let go of a large block that it kept.
long growth(const Level &level, const Level &from) {
    return level.residentKiB - from.residentKiB;
}

bool isBack(const Ledger &ledger, const Level &level) {
    const Level &wanted = ledger.afterTenth;
    const long kept = ledger.requests < SHORT_RUN ? KEPT_KIB : 0;
    return growth(level, wanted) <= TOLERANCE_KIB + kept &&
           std::labs(level.blocks - wanted.blocks) <= TOLERANCE_BLOCKS &&
           level.timers == wanted.timers && level.descriptors == wanted.descriptors &&
           std::strcmp(level.handles, wanted.handles) == 0;
}

// With nobody there but the honest clients: two for each, in virtual time its own ends as well; over
// sockets the one that listens, and its lock.
long descriptorsWanted(const Ledger &ledger) {
    const std::size_t more = ledger.isVirtual ? 4 * HONEST : 2 * HONEST + 2;
    return ledger.start.descriptors + static_cast<long>(more);
}

// Lets one tenth after the other pass. After each the hostile clients go, the honest ones wait, and
// the application says what it holds.
void playTenths(Ledger &ledger, const Pass &pass) {
    const auto allDone = [&] { return ledger.finished() == Ledger::sum(ledger.limit); };
    const auto allGone = [&] {
        return std::all_of(std::begin(ledger.gone), std::end(ledger.gone),
                           [](const auto &gone) { return gone.load(); });
    };
    const auto allActed = [&](std::uint64_t times) { // each of them, in each tenth
        return std::all_of(std::begin(ledger.acts), std::end(ledger.acts),
                           [&](const auto &acts) { return acts >= times; });
    };
    for (std::uint64_t tenth = 1; tenth <= TENTHS; ++tenth) {
        ledger.calm = false;
        for (std::size_t i = 0; i < HONEST; ++i)
            ledger.limit[i] = ledger.requests / HONEST * tenth / TENTHS - (i == 0 ? 1 : 0);
        await(ledger, pass, [&] { return allDone() && allActed(tenth); });
        ledger.calm = true;
        await(ledger, pass, allGone);
        ++ledger.limit[0]; // the last request is always of the same kind
        await(ledger, pass, allDone);

        const Level &wanted = ledger.afterTenth;
        for (int question = 1; question <= PATIENT_QUESTIONS; ++question) {
            ++ledger.asked;
            await(ledger, pass, [&] { return ledger.asked == ledger.told; });
            if (tenth == 1
                    ? question >= QUESTIONS && ledger.level.descriptors == descriptorsWanted(ledger)
                    : isBack(ledger, ledger.level))
                break;
        }
        if (tenth == 1)
            ledger.afterTenth = ledger.farthest = ledger.level;
        else if (!isBack(ledger, ledger.level) ||
                 (isBack(ledger, ledger.farthest) &&
                  growth(ledger.level, wanted) > growth(ledger.farthest, wanted)))
            ledger.farthest = ledger.level;
    }
}

void prepare() {
    setenv("NELVO_LOG", "silent", 1); // garbage makes for many lines
    unsetenv("NELVO_HOST_APP_ID");
    host_sim_set_manifest(MANIFEST);
}

int playVirtually(Ledger &ledger) {
    host_sim_start();
    prepare();
    ecore_init();
    Application application(ledger);
    application.start();
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < HONEST; ++i)
        clients.push_back(std::make_unique<HonestClient>(ledger, i));
    for (std::size_t i = 0; i < HOSTILE; ++i)
        clients.push_back(std::make_unique<HostileClient>(ledger, i));
    int passes = 0;
    playTenths(ledger, [&] {
        const std::uint64_t finished = ledger.finished();
        for (const auto &client : clients)
            client->turn();
        const bool watch = ++passes % PASSES_PER_WATCH == 0 || ledger.finished() == finished;
        host_sim_advance(watch ? WATCH_SECONDS : PASS_SECONDS);
        application.tellLevel();
    });
    clients.clear();
    host_sim_advance(0);
    application.stop();
    return 0;
}

// Eight clients and the application, each in a process of its own.
int playOverSockets(Ledger &ledger) {
    prepare();
    Worker application([&] { return Application::run(ledger); });
    std::deque<Worker> clients;
    for (std::size_t i = 0; i < HONEST; ++i)
        clients.emplace_back([&, i] { return HonestClient(ledger, i).run(); });
    for (std::size_t i = 0; i < HOSTILE; ++i)
        clients.emplace_back([&, i] { return HostileClient(ledger, i).run(); });
    playTenths(ledger, [] { usleep(1000); });
    ledger.stop = true;
    clients.clear();
    return application.wait();
}

std::string toText(const Level &level) {
    return std::to_string(level.residentKiB) + " KiB, " + std::to_string(level.blocks) +
           " blocks, " + std::to_string(level.timers) + " timers, " +
           std::to_string(level.descriptors) + " descriptors, " + level.handles;
}

bool report(const Ledger &ledger, const char *where, double seconds, bool played) {
    std::uint64_t answered = 0, overtaken = 0, lost = 0, twice = 0;
    for (std::uint64_t i = 0; i < ledger.requests; ++i) {
        const Entry &entry = ledger.entries[i];
        const int answers = entry.answers, wanted = entry.fate == ANSWERED ? 1 : 0;
        answered += entry.fate == ANSWERED;
        overtaken += entry.fate == OVERTAKEN;
        lost += entry.fate == UNKNOWN || answers < wanted;
        twice += answers > wanted;
    }
    Report report(where + (", " + std::to_string(std::lround(seconds))) + " s");
    report.line("requests of five honest clients", ledger.requests, played);
    report.line("  answered", answered, answered > 0);
    report.line("  of these by the library, after 30 s", ledger.timedOut);
    report.line("  overtaken", overtaken, overtaken > 0);
    report.line("  lost", lost, lost == 0);
    report.line("  answered twice, or though overtaken", twice, twice == 0);
    report.line("acts of three hostile clients", Ledger::sum(ledger.acts));
    report.line("wrong answers and return codes", ledger.wrong, ledger.wrong == 0);
    report.line("the application before it starts", toText(ledger.start));
    report.line("after the first tenth", toText(ledger.afterTenth),
                ledger.afterTenth.descriptors == descriptorsWanted(ledger));
    report.line("later, when that differed most", toText(ledger.farthest),
                isBack(ledger, ledger.farthest));
    report.line("after it has stopped", toText(ledger.end),
                std::strcmp(ledger.end.handles, NO_HANDLES) == 0 && ledger.end.timers == 0 &&
                    ledger.end.descriptors == ledger.start.descriptors);
    return report.holds();
}

bool play(std::size_t requests, bool isVirtual) {
    Ledger &ledger = makeLedger(requests / (HONEST * TENTHS) * HONEST * TENTHS, isVirtual);
    const auto start = Clock::now();
    Worker worker([&] { return isVirtual ? playVirtually(ledger) : playOverSockets(ledger); });
    const bool played = worker.wait() == 0;
    const std::chrono::duration<double> time = Clock::now() - start;
    return report(ledger, isVirtual ? "In virtual time" : "Over sockets", time.count(), played);
}

} // namespace

bool overSockets(std::size_t requests) {
    return play(requests, false);
}

bool inVirtualTime(std::size_t requests) {
    return play(requests, true);
}

} // namespace nelvo::testkit::soak
