// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "catalogue.h"
#include "link.h"
#include "timer.h"

namespace nelvoctl {

// What became of a request: the answer's text, or why there is none.
struct Outcome {
    std::string text;
    std::optional<Failure> failure;
};

// One application that a server drives: a queue of requests, whether the application is there, and
// its state for those who watch it.
//
// One request is under way at a time, since a newer one would overtake it in the application. Each
// takes a connection of its own and registers the response callback anew: another client with the
// same id may have put its own callback in that place. A further connection, over which nothing is
// sent, shows when the application ends.
class Application {
public:
    using Answered = std::function<void(const Outcome &)>;

    explicit Application(const Target &target) : _target(target) {}
    Application(const Application &) = delete;
    Application &operator=(const Application &) = delete;

    const std::string &id() const { return _target.appId; }

    // Puts a request behind those that wait. Answered is called from the main loop, or before ask()
    // returns; it may ask and cancel. Returns a number for cancel().
    int ask(const std::string &actionId, const std::optional<std::string> &params,
            Answered answered);
    // Forgets a request, which is never answered then, and goes on with the next one.
    void cancel(int number);
    bool isBusy() const { return !_requests.empty(); }

    // Looks whether the application listens, and keeps a connection as long as it does. Lost is
    // called when that connection has ended, or, with false, did not come about: an application
    // whose main loop is stuck accepts none. Returns whether the connection is a new one.
    bool look(const std::function<void(bool hasEnded)> &lost);
    bool isPresent() const { return _isPresent; }

    // While there are watchers, asks for the state at intervals, and calls changed for each state
    // that differs from the one before.
    void watch(double intervalSeconds, const std::function<void()> &changed);
    void unwatch();
    bool isWatched() const { return _watchers > 0; }

    Catalogue catalogue;

private:
    struct Request {
        int number;
        std::string actionId;
        std::optional<std::string> params;
        Answered answered;
    };

    void next();
    void take(const Failure *failure);
    void askForState();
    void takeState(const Outcome &outcome);

    const Target _target;
    std::deque<Request> _requests; // the first is under way
    int _lastNumber = 0;
    std::unique_ptr<Link> _link; // null: no request is under way
    Timer _nextTimer;

    std::unique_ptr<nelvo::client::MessageProxy> _presence; // null: not connected
    bool _isPresent = false;

    int _watchers = 0;
    double _interval = 0;
    std::function<void()> _changed;
    Timer _stateTimer;
    int _stateRequest = 0;             // its number; 0: none waits
    std::optional<std::string> _state; // the latest; empty: not known yet
};

} // namespace nelvoctl
