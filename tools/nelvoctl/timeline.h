// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "client/library_log.h"

namespace nelvoctl {

// The course of one request. Times are seconds of the monotonic clock, or 0 if that did not happen.
struct TracedRequest {
    int number = 0;
    std::string client;
    std::string actionId; // "?" while nothing is registered: the log does not name it then
    double arrived = 0;
    double called = 0; // the application's callback
    double completed = 0;
    double ended = 0;
    std::string outcome; // "answered", or what happened instead
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

    // One log entry: the function's name, and the text after "function(): ".
    void take(double time, const std::string &function, const std::string &text);
    // To be called when nothing has been logged for a while, or nothing more will be.
    void rest();

private:
    void takeOpen(nelvo::client::LogEvent event, double time, const std::string &detail);
    void open(double time, const std::string &actionId);
    void close(double time, const std::string &outcome);

    double _arrival = 0;
    std::string _client;
    std::optional<TracedRequest> _open;
    int _count = 0;
};

} // namespace nelvoctl
