// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "cause.h"
#include "client/message_proxy.h"

namespace nelvoctl {

// Runs the main loop until done() returns true or the time is over; returns done(). Whoever makes
// done() true calls ecore_main_loop_quit().
bool runLoopUntil(double seconds, const std::function<bool()> &done);

// Which application to ask, as which client, and how long to wait.
struct Target {
    std::string appId;
    std::string clientId = "nelvo.client"; // who the process is; for messages here
    // For connecting, and again for each answer. Longer than the library waits for the application,
    // so that the library's time-out failure arrives first.
    double timeoutSeconds = 35;
    double waitSeconds = 0; // how long the application may take to come up
};

// One connection to an application. Call the steps in this order, ask() any number of times. Each
// step throws Failure with its most likely cause; the session cannot be used afterwards.
class Session {
public:
    explicit Session(const Target &target);

    void connect();
    void registerCallback();
    nelvo::client::Response ask(const std::string &actionId,
                                const std::optional<std::string> &params = std::nullopt);

private:
    void reach();
    void end(Cause cause, const std::string &message);
    bool hasEnded() const { return _failure.has_value(); }

    const Target _target;
    nelvo::client::MessageProxy _proxy;
    bool _connected = false;
    nelvo::client::Request _request;
    std::optional<nelvo::client::Response> _response;
    std::optional<Failure> _failure; // why the connection has ended
};

// Connects, sends one request and returns the answer.
nelvo::client::Response exchange(const Target &target, const std::string &actionId,
                                 const std::optional<std::string> &params = std::nullopt);

// The failure that a response reports.
std::optional<Failure> failureOf(const nelvo::client::Response &response, const std::string &appId);

} // namespace nelvoctl
