// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "client/library_log.h"

namespace nelvoctl {

// What became of one request. Times are seconds of the monotonic clock; 0: that did not happen.
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

// Puts the requests of an application together from the lines that its library logs.
//
// One request is open at a time, as in the library. It ends when it is answered, dropped or
// overtaken; an answer is known to have been sent only when the next line is no error, or when
// nothing follows.
class Timeline {
public:
    std::function<void(const TracedRequest &)> ended;
    // A report that the library did not want any more.
    std::function<void(const std::string &text)> ignoredReport;

    // One entry: the function and the text behind "function(): ".
    void take(double time, const std::string &function, const std::string &text);
    // Nothing has been logged for a while, or will be.
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
