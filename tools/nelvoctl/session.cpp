// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <algorithm>
#include <cstring>

#include <sys/random.h>

#include <Ecore.h>

#include "diagnosis.h"
#include "output.h"

namespace nelvoctl {

namespace {

using nelvo::client::BundlePtr;
using nelvo::client::Reply;
using nelvo::client::Response;

constexpr double RETRY_SECONDS = 0.05;

Eina_Bool expiredCb(void *expired) {
    *static_cast<bool *>(expired) = true;
    ecore_main_loop_quit();
    return ECORE_CALLBACK_CANCEL;
}

} // namespace

bool runLoopUntil(double seconds, const std::function<bool()> &done) {
    bool expired = false;
    Ecore_Timer *timer = ecore_timer_add(seconds, expiredCb, &expired);
    if (!timer)
        throw Failure(Cause::INTERNAL, "a timer could not be created");
    while (!expired && !done())
        ecore_main_loop_begin();
    if (!expired)
        ecore_timer_del(timer);
    return done();
}

Session::Session(const Target &target) : _target(target) {
    const std::string &app = _target.appId;
    _proxy.events.connected = [this] {
        _connected = true;
        ecore_main_loop_quit();
    };
    _proxy.events.rejected = [this, app] { end(Cause::REFUSED, app + " refused the connection"); };
    _proxy.events.disconnected = [this, app] {
        end(Cause::CONNECTION_LOST, "lost the connection to " + app + " before it answered");
    };
    _proxy.events.answered = [this](const nelvo::client::Answer &answer) {
        // Answers to an earlier client with the same id arrive here as well.
        if (answer.response.requestId != _request.requestId)
            return;
        _response = answer.response;
        ecore_main_loop_quit();
    };
    _proxy.events.malformed = [app](const char *reason) {
        note("ignored a message of " + app + " that is no answer: " + reason);
    };
}

void Session::end(Cause cause, const std::string &message) {
    if (!hasEnded())
        _failure.emplace(cause, message);
    ecore_main_loop_quit();
}

// Connects as soon as the application listens.
void Session::reach() {
    const double start = ecore_time_get();
    for (;;) {
        const int error = _proxy.connect(_target.appId);
        if (error == RPC_PORT_ERROR_NONE)
            return;
        const double left = start + _target.waitSeconds - ecore_time_get();
        if (error != RPC_PORT_ERROR_IO_ERROR || left <= 0)
            throw explainUnreachable(_target.appId, error);
        runLoopUntil(std::min(RETRY_SECONDS, left), [] { return false; });
    }
}

void Session::connect() {
    reach();
    const double start = ecore_time_get();
    const bool decided =
        runLoopUntil(_target.timeoutSeconds, [this] { return _connected || hasEnded(); });
    if (_connected && !hasEnded())
        return;
    // The platform gives up after 5 s, and reports that as a refusal.
    if (!decided || ecore_time_get() - start > 4)
        throw explainStuck(_target.appId, ecore_time_get() - start);
    throw *_failure;
}

void Session::registerCallback() {
    const Reply reply = _proxy.setCb();
    if (!reply.ok())
        throw explainRefusedCallback(_target, reply.error != RPC_PORT_ERROR_NONE);
}

Response Session::ask(const std::string &actionId, const std::optional<std::string> &params) {
    _request.actionId = actionId;
    _request.actionParams = params;
    _response.reset();
    std::uint64_t &id = _request.requestId;
    if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id))
        throw Failure(Cause::INTERNAL, "a random request id could not be read");
    const BundlePtr bundle = nelvo::client::makeRequest(_request);
    if (!bundle || (!hasEnded() && _proxy.send(bundle.get()) != RPC_PORT_ERROR_NONE))
        throw Failure(Cause::CONNECTION_LOST, "could not send the request to " + _target.appId +
                                                  ", which has gone, or PARAMS are too large");
    runLoopUntil(_target.timeoutSeconds, [this] { return _response.has_value() || hasEnded(); });
    if (_response)
        return *_response;
    if (hasEnded())
        throw *_failure;
    throw explainSilence(_target);
}

Response exchange(const Target &target, const std::string &actionId,
                  const std::optional<std::string> &params) {
    Session session(target);
    session.connect();
    session.registerCallback();
    return session.ask(actionId, params);
}

std::optional<Failure> failureOf(const Response &response, const std::string &appId) {
    if (response.succeeded())
        return std::nullopt;
    const std::string message = response.field("status_msg");
    const auto endsWith = [&](const std::string &end) {
        return message.size() >= end.size() &&
               message.compare(message.size() - end.size(), end.size(), end) == 0;
    };
    const Cause cause = endsWith("callback not registered") ? Cause::NO_CALLBACK
                        : endsWith("timed out")             ? Cause::APP_TIMEOUT
                                                            : Cause::FAILURE;
    return Failure(cause, appId + " answered: " + (message.empty() ? "failure" : message));
}

} // namespace nelvoctl
