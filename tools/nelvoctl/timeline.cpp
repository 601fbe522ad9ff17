// SPDX-License-Identifier: Apache-2.0
#include "timeline.h"

#include "client/envelope.h"
#include "client/library_log.h"

namespace nelvoctl {

void Timeline::open(double time) {
    ++_count;
    if (_open && _open->ended == 0)
        _open->supersededBy = _count;
    close(time, "superseded");
    _open = TracedRequest{_count, _client, _actionId, _arrival, 0, 0, 0, "", 0};
}

// Keeps the time of the first answer.
void Timeline::close(double time, const std::string &outcome) {
    if (!_open)
        return;
    TracedRequest request = *_open;
    _open.reset();
    if (request.ended == 0)
        request.ended = time;
    if (request.outcome.empty())
        request.outcome = outcome;
    ended(request);
}

void Timeline::rest() {
    if (_open && _open->ended > 0)
        close(_open->ended, "answered");
}

void Timeline::take(double time, const std::string &function, const std::string &text) {
    using nelvo::client::LogEvent;
    const auto [event, detail] = nelvo::client::readLogLine(function, text);
    if (event != LogEvent::SENDING && event != LogEvent::NOT_SENT)
        rest();
    switch (event) {
    case LogEvent::ARRIVED:
        _arrival = time;
        _actionId = _arrived.empty() ? "?" : _arrived.front();
        if (!_arrived.empty())
            _arrived.pop_front();
        break;
    case LogEvent::SENDER:
    case LogEvent::REFUSED:
        _client = detail;
        break;
    case LogEvent::STATE_REQUEST:
        open(time);
        _open->called = time; // the log says nothing of the callback itself
        break;
    case LogEvent::ACTION_REQUEST:
        open(time);
        break;
    case LogEvent::STOPPED:
        close(time, "dropped by the shut-down");
        break;
    case LogEvent::UNKNOWN_HANDLER:
    case LogEvent::OLD_REQUEST:
    case LogEvent::TOO_LATE:
        ignoredReport(text);
        break;
    case LogEvent::NOT_SENT:
        close(time, "not delivered: " + text);
        break;
    default:
        if (_open)
            takeOpen(event, time);
    }
}

// An event that can only belong to the open request.
void Timeline::takeOpen(nelvo::client::LogEvent event, double time) {
    using nelvo::client::LogEvent;
    if (event == LogEvent::CALLBACK_FOUND) {
        _open->called = time;
    } else if (event == LogEvent::NO_STATE_CALLBACK) {
        _open->called = 0;
        _open->outcome = "no callback";
    } else if (event == LogEvent::NO_ACTION_CALLBACK) {
        _open->outcome = "no callback";
    } else if (event == LogEvent::REPORTED) {
        _open->completed = time;
    } else if (event == LogEvent::TIMED_OUT) {
        _open->outcome = "timed out";
    } else if (event == LogEvent::SENDING) {
        _open->ended = time;
    }
}

} // namespace nelvoctl
