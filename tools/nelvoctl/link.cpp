// SPDX-License-Identifier: Apache-2.0
#include "link.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sys/random.h>

#include <Ecore.h>

#include "output.h"
#include "recorder.h"

namespace nelvoctl {

namespace {

using nelvo::client::BundlePtr;
using nelvo::client::Reply;
using nelvo::client::Response;
using Kind = nelvo::client::EventKind;

constexpr double RETRY_SECONDS = 0.05;

} // namespace

Link::Link(const Target &target) : _target(target) {
    const std::string &app = _target.appId;
    _proxy.events.connected = [this] {
        record(Kind::CONNECTED);
        finish(nullptr);
    };
    _proxy.events.rejected = [this] { explainConnecting(false); };
    _proxy.events.disconnected = [this, app] {
        _ended = Failure(Cause::CONNECTION_LOST,
                         "lost the connection to " + app + " before it answered");
        if (!_prober)
            fail(*_ended);
    };
    _proxy.events.answered = [this](const nelvo::client::Answer &answer) {
        record(Kind::ANSWER, answer.response.content.get());
        // Answers to an earlier client with the same id arrive here as well.
        if (!_done || answer.response.requestId != _request.requestId)
            return;
        _response = answer.response;
        finish(nullptr);
    };
    _proxy.events.malformed = [app](const char *reason) {
        note("ignored a message of " + app + " that is no answer: " + reason);
    };
}

Link::~Link() {
    record(Kind::GONE);
}

// A file that cannot be written ends the recording, not what is recorded.
void Link::record(Kind kind, bundle *content) {
    if (!_target.recorder || (_recorded == 0 && kind != Kind::CONNECTED))
        return;
    try {
        if (kind == Kind::CONNECTED)
            _recorded = _target.recorder->connect(_target.appId, _target.clientId);
        else
            _target.recorder->add(_recorded, kind, content);
    } catch (const Failure &failure) {
        note(failure.message + "; nothing more is recorded");
        _target.recorder.reset();
    }
}

// The last thing that any step does: done may destroy the link.
void Link::finish(const Failure *failure) {
    _timer.stop();
    if (const Done done = std::exchange(_done, nullptr)) {
        const std::optional<Failure> kept = failure ? std::optional(*failure) : std::nullopt;
        done(kept ? &*kept : nullptr);
    }
}

void Link::startTimer(double seconds, std::function<void()> then) {
    if (!_timer.start(seconds, std::move(then)))
        fail({Cause::INTERNAL, "a timer could not be created"});
}

void Link::connect(Done done) {
    _done = std::move(done);
    _start = ecore_time_get();
    reach();
}

// Connects as soon as the application listens and has room for another connection.
void Link::reach() {
    const int error = _proxy.connect(_target.appId);
    const int reason = errno;
    if (error == RPC_PORT_ERROR_NONE) {
        _start = ecore_time_get();
        startTimer(_target.timeoutSeconds, [this] { explainConnecting(true); });
        return;
    }
    const bool isFull = reason == EAGAIN; // the backlog: the application is there and is busy
    const double waited = ecore_time_get() - _start;
    const double left = std::max(_target.waitSeconds, isFull ? _target.timeoutSeconds : 0) - waited;
    if (isFull && left <= 0)
        fail(explainStuck(_target.appId, waited));
    else if (error != RPC_PORT_ERROR_IO_ERROR || left <= 0)
        fail(explainUnreachable(_target.appId, error, reason));
    else
        startTimer(std::min(RETRY_SECONDS, left), [this] { reach(); });
}

// The platform gives up after 5 s, and reports that as a refusal.
void Link::explainConnecting(bool expired) {
    const double seconds = ecore_time_get() - _start;
    if (expired || seconds > 4)
        fail(explainStuck(_target.appId, seconds));
    else
        fail({Cause::REFUSED, _target.appId + " refused the connection"});
}

void Link::registerCallback(Done done) {
    const Reply reply = _proxy.setCb();
    _done = std::move(done); // not before: a lost connection is explained below
    if (reply.ok())
        record(Kind::REGISTERED);
    if (reply.ok())
        finish(nullptr);
    else if (reply.error == RPC_PORT_ERROR_NONE)
        fail(explainRefusedCallback(_target));
    else
        probeThen([this](const Probe &now) { return explainNoReply(_target, now); });
}

void Link::ask(const std::string &actionId, const std::optional<std::string> &params, Done done) {
    _done = std::move(done);
    _request.actionId = actionId;
    _request.actionParams = params;
    std::uint64_t &id = _request.requestId;
    if (getrandom(&id, sizeof id, 0) != static_cast<ssize_t>(sizeof id))
        return fail({Cause::INTERNAL, "a random request id could not be read"});
    const BundlePtr bundle = nelvo::client::makeRequest(_request);
    const int error = !bundle  ? RPC_PORT_ERROR_OUT_OF_MEMORY
                      : _ended ? RPC_PORT_ERROR_NONE
                               : _proxy.send(bundle.get());
    if (bundle && !_ended && error == RPC_PORT_ERROR_NONE)
        record(Kind::REQUEST, bundle.get());
    const std::string what = "the request to " + _target.appId;
    if (error == RPC_PORT_ERROR_INVALID_PARAMETER)
        return fail({Cause::USAGE, what + " is larger than 16 MiB, the most that can be sent"});
    if (error == RPC_PORT_ERROR_OUT_OF_MEMORY)
        return fail({Cause::INTERNAL, "there is no memory for " + what});
    if (error != RPC_PORT_ERROR_NONE)
        return fail({Cause::CONNECTION_LOST, "could not send " + what + ", which has gone"});
    if (_ended)
        return fail(*_ended);
    startTimer(_target.timeoutSeconds, [this] {
        probeThen([this](const Probe &now) { return explainSilence(_target, now); });
    });
}

void Link::probeThen(std::function<Failure(const Probe &)> explain) {
    _prober = std::make_unique<Prober>();
    _prober->start(_target.appId, PROBE_SECONDS,
                   [this, explain](const Probe &now) { fail(explain(now)); });
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
