// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "cause.h"
#include "client/message_proxy.h"
#include "client/session.h"
#include "diagnosis.h"
#include "timer.h"

namespace nelvoctl {

class Recorder;

// Which application to ask, as which client, and how long to wait.
struct Target {
    std::shared_ptr<Recorder> recorder; // null: nothing is recorded
    std::string appId;
    std::string clientId = "nelvo.client"; // who the process is; for messages here
    // For connecting, and again for each answer. Longer than the library waits for the application,
    // so that the library's time-out failure arrives first.
    double timeoutSeconds = 35;
    double waitSeconds = 0; // how long the application may take to come up
};

// One connection to an application, for use from the main loop. Call the steps in this order, ask()
// any number of times, each when the previous one is done.
//
// A step calls done once, possibly before the step returns: with null for a success, else with the
// failure and its most likely cause; the link cannot be used afterwards. Done may destroy the link.
// A link that is destroyed calls nothing any more.
//
// registerCallback() blocks until the application replies. As connect() has just found the
// application's main loop responding, that takes no time worth mentioning.
class Link {
public:
    using Done = std::function<void(const Failure *)>;

    explicit Link(const Target &target);
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link();

    void connect(Done done);
    void registerCallback(Done done);
    void ask(const std::string &actionId, const std::optional<std::string> &params, Done done);

    // The answer to the latest request.
    const nelvo::client::Response &response() const { return _response; }

private:
    void reach();
    void explainConnecting(bool expired);
    void startTimer(double seconds, std::function<void()> then);
    void probeThen(std::function<Failure(const Probe &)> explain);
    void finish(const Failure *failure);
    void record(nelvo::client::EventKind kind, bundle *content = nullptr);
    void fail(const Failure &failure) { finish(&failure); }

    Target _target;
    int _recorded = 0; // the recorder's number for the connection; 0: none
    nelvo::client::MessageProxy _proxy;
    nelvo::client::Request _request;
    nelvo::client::Response _response;
    Done _done;                      // null: no step is under way
    double _start = 0;               // of connecting
    std::optional<Failure> _ended;   // why the connection has ended
    Timer _timer;                    // of the step
    std::unique_ptr<Prober> _prober; // null unless a failure is being explained
};

// The failure that a response reports.
std::optional<Failure> failureOf(const nelvo::client::Response &response, const std::string &appId);

} // namespace nelvoctl
