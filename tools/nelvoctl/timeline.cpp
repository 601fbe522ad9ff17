// SPDX-License-Identifier: Apache-2.0
#include "timeline.h"

#include "client/envelope.h"

namespace nelvoctl {

namespace {

// The rest of text behind start; empty when it begins otherwise.
std::optional<std::string> behind(const std::string &start, const std::string &text) {
    if (text.compare(0, start.size(), start) != 0)
        return std::nullopt;
    return text.substr(start.size());
}

bool contains(const std::string &text, const char *part) {
    return text.find(part) != std::string::npos;
}

} // namespace

void Timeline::open(double time, const std::string &actionId) {
    close(time, "superseded");
    _open = TracedRequest{++_count, _client, actionId, _arrival, 0, 0, 0, ""};
}

// What has been answered keeps that time.
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
    if (function == "sendResponse") {
        if (_open && behind("App Id ", text))
            _open->ended = time;
        else // it could not be sent
            close(time, "not delivered: " + text);
        return;
    }
    rest();
    if (function == "Send") {
        if (text == "Call stub Send")
            _arrival = time;
        else if (const auto client = behind("Call stub Sender ", text))
            _client = *client;
    } else if (function == "isPermittedSender" && contains(text, " is not permitted")) {
        _client = text.substr(0, text.find(' '));
    } else if (function == "executeRequest") {
        if (text == "App State request recieved") {
            open(time, nelvo::client::STATE_ACTION_ID);
            _open->called = time; // the log says nothing of the callback itself
        } else if (text == "Action Execution request recieved") {
            open(time, "?");
        }
    } else if (function == "deinitialize") {
        close(time, "dropped by the shut-down");
    } else if (contains(text, "discarding") || contains(text, "Discarding") ||
               contains(text, "Couldn't find requestId")) {
        ignoredReport(text);
    }
    if (!_open)
        return;
    if (const auto found = behind("Found execute action Id: ", text)) {
        _open->actionId = found->substr(0, found->rfind("  Callback: "));
        _open->called = time;
    } else if (text == "There is no app state request callback.") {
        _open->called = 0;
        _open->outcome = "no callback";
    } else if (text == "There is no matching action execution callback.") {
        _open->outcome = "no callback";
    } else if (text == "Action result:" || text == "App result:") {
        _open->completed = time;
    } else if (contains(text, "timed out. Failed")) {
        _open->outcome = "timed out";
    }
}

} // namespace nelvoctl
