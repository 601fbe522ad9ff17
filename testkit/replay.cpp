// SPDX-License-Identifier: Apache-2.0
#include "client/replay.h"

#include <algorithm>

#include <host/sim.h>
#include <nelvo/testkit.h>

#include "simulated_app.h"

namespace nelvo::testkit {

namespace {

constexpr double STEP_SECONDS = 0.02;

// Moves the clock until the condition holds, at most that long.
bool wait(double seconds, const std::function<bool()> &until) {
    host_sim_advance(0);
    if (!until)
        host_sim_advance(seconds);
    for (double left = seconds; until && !until() && left > 0; left -= STEP_SECONDS)
        host_sim_advance(std::min(left, STEP_SECONDS));
    return until && until();
}

} // namespace

std::vector<std::string> replay(const std::string &file, const std::vector<std::string> &ignored) {
    client::Replay::Settings settings;
    settings.appId = simulatedAppId();
    settings.ignored = ignored;
    settings.wait = wait;
    settings.now = host_sim_now;
    settings.introduce = [](client::MessageProxy &proxy, const std::string &id) {
        host_sim_set_sender(proxy.handle(), id.c_str());
    };
    return client::Replay(settings).play(client::readSession(file));
}

} // namespace nelvo::testkit
