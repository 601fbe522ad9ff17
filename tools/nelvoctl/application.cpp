// SPDX-License-Identifier: Apache-2.0
#include "application.h"

#include <algorithm>
#include <utility>

#include "client/envelope.h"

namespace nelvoctl {

int Application::ask(const std::string &actionId, const std::optional<std::string> &params,
                     Answered answered) {
    const int number = ++_lastNumber;
    _requests.push_back({number, actionId, params, std::move(answered)});
    next();
    return number;
}

void Application::cancel(int number) {
    const auto found =
        std::find_if(_requests.begin(), _requests.end(),
                     [&](const Request &request) { return request.number == number; });
    if (found == _requests.end())
        return;
    if (found == _requests.begin())
        _link.reset();
    _requests.erase(found);
    next();
}

// Starts the first request, unless it has been started.
void Application::next() {
    if (_link || _requests.empty())
        return;
    _link = std::make_unique<Link>(_target);
    _link->connect([this](const Failure *unreachable) {
        if (unreachable)
            return take(unreachable);
        _link->registerCallback([this](const Failure *refused) {
            if (refused)
                return take(refused);
            const Request &request = _requests.front();
            _link->ask(request.actionId, request.params,
                       [this](const Failure *silent) { take(silent); });
        });
    });
}

void Application::take(const Failure *failure) {
    Outcome outcome;
    if (failure) {
        outcome.failure = *failure;
    } else {
        const nelvo::client::Response &response = _link->response();
        outcome.failure = failureOf(response, id());
        const bool isState = _requests.front().actionId == nelvo::client::STATE_ACTION_ID;
        outcome.text = response.field(isState ? "appContext" : "result");
    }
    const Request request = std::move(_requests.front());
    _requests.pop_front();
    _link.reset();
    request.answered(outcome);
    if (!_requests.empty()) // not from here: each request of a long queue may fail at once
        _nextTimer.start(0, [this] { next(); });
}

bool Application::look(const std::function<void(bool)> &lost) {
    if (_presence)
        return false;
    auto presence = std::make_unique<nelvo::client::MessageProxy>();
    const auto forget = [this, lost](bool hasEnded) {
        _presence.reset();
        lost(hasEnded);
    };
    presence->events.rejected = [forget] { forget(false); };
    presence->events.disconnected = [forget] { forget(true); };
    _isPresent = presence->connect(id()) == RPC_PORT_ERROR_NONE;
    if (_isPresent)
        _presence = std::move(presence);
    return _isPresent;
}

void Application::watch(double intervalSeconds, const std::function<void()> &changed) {
    _interval = intervalSeconds;
    _changed = changed;
    if (++_watchers == 1)
        askForState();
}

void Application::unwatch() {
    if (--_watchers > 0)
        return;
    _stateTimer.stop();
    _state.reset();
    cancel(std::exchange(_stateRequest, 0));
}

void Application::askForState() {
    if (_isPresent)
        _stateRequest = ask(nelvo::client::STATE_ACTION_ID, std::nullopt,
                            [this](const Outcome &outcome) { takeState(outcome); });
    else
        takeState({"", Failure(Cause::NOBODY_LISTENS, "")});
}

void Application::takeState(const Outcome &outcome) {
    _stateRequest = 0;
    _stateTimer.start(_interval, [this] { askForState(); });
    const std::string state =
        outcome.failure ? std::string("!") + outcome.failure->entry().name : outcome.text;
    const auto before = std::exchange(_state, state);
    if (before && *before != state)
        _changed();
}

} // namespace nelvoctl
