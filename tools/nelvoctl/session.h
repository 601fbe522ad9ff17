// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "link.h"

namespace nelvoctl {

// Runs the main loop for that long, or until the condition holds when something wakes the loop. Returns
// whether the condition holds.
bool runLoopFor(double seconds, const std::function<bool()> &until = nullptr);

// One connection to an application for commands, which wait for each step: as Link, but each step
// runs the main loop until it is done, and throws Failure.
class Session {
public:
    explicit Session(const Target &target) : _link(target) {}

    void connect();
    void registerCallback();
    nelvo::client::Response ask(const std::string &actionId,
                                const std::optional<std::string> &params = std::nullopt);

private:
    Link _link;
};

// Connects, sends one request and returns the answer.
nelvo::client::Response exchange(const Target &target, const std::string &actionId,
                                 const std::optional<std::string> &params = std::nullopt);

} // namespace nelvoctl
