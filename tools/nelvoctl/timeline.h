// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "client/library_log.h"

namespace nelvoctl {

// The course of one request. Times are seconds of the monotonic clock, or 0 if that did not happen.
struct TracedRequest {
    int number = 0;
    std::string client;
    std::string actionId; // "?" if nothing shows it
    double arrived = 0;
    double called = 0; // the application's callback
    double completed = 0;
    double ended = 0;
    std::string outcome;  // "answered", or what happened instead
    int supersededBy = 0; // the number of the request that overtook this one; 0: none did
};

// Reconstructs the requests of an application from the lines that the library logs.
//
// One request is open at a time, as in the library. It ends when it is answered, dropped or
// overtaken. An answer counts as sent if the next line is not an error, or if no line follows.
class Timeline {
public:
    std::function<void(const TracedRequest &)> ended;
    // A completion that came after the request had ended.
    std::function<void(const std::string &text)> ignoredReport;

    // The content of a request that has reached the application. To be called before the lines that the
    // library logs about that request.
    void arrives(const std::string &actionId) { _arrived.push_back(actionId); }
    // One log entry: the function's name, and the text after "function(): ".
    void take(double time, const std::string &function, const std::string &text);
    // To be called when nothing has been logged for a while, or nothing more will be.
    void rest();

private:
    void takeOpen(nelvo::client::LogEvent event, double time);
    void open(double time);
    void close(double time, const std::string &outcome);

    std::deque<std::string> _arrived; // action ids that the log has not come to yet
    std::string _actionId;            // of the request that the log speaks of
    double _arrival = 0;
    std::string _client;
    std::optional<TracedRequest> _open;
    int _count = 0;
};

} // namespace nelvoctl
