// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "cause.h"
#include "client/message_proxy.h"

namespace nelvoctl {

// Runs the main loop until done() or until the time is over; whether it was done. What makes it
// done calls ecore_main_loop_quit().
bool runLoopUntil(double seconds, const std::function<bool()> &done);

// Whom to ask, as whom, and how patiently.
struct Target {
    std::string appId;
    std::string clientId = "nelvo.client"; // who the process is; for messages here
    // For connecting, and again for each answer. Longer than the library waits for the application:
    // its own failure is to arrive first.
    double timeoutSeconds = 35;
    double waitSeconds = 0; // how long the application may take to come up
};

// One connection to an application. The steps come in this order, ask() as often as one likes; each
// throws Failure, with the cause as well as it can be told from here, and the session is of no more
// use then.
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

// A whole request, over a connection of its own.
nelvo::client::Response exchange(const Target &target, const std::string &actionId,
                                 const std::optional<std::string> &params = std::nullopt);

// Why a response is none of success.
std::optional<Failure> failureOf(const nelvo::client::Response &response, const std::string &appId);

} // namespace nelvoctl
