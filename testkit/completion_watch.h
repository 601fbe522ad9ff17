// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <string>
#include <vector>

#include <nelvo/testkit.h>

namespace nelvo::testkit {

// Finds in the library's log the completions of requests that are no longer pending, and why each
// request has ended.
//
// The log names handlers by number: 2 is the first after a start, 0 follows 99, and each request
// that reaches a callback takes one. So requests are counted here as the library counts them.
class CompletionWatch {
public:
    void heed(const LogLine &line);

    // Returns each warning once, in order, and clears the list.
    std::vector<std::string> take();

private:
    static constexpr int HANDLERS = 100;
    struct Request {
        std::string actionId;
        const char *end = nullptr; // null: it is pending; otherwise what has become of it
        // The action of the request that had the same handler when the library was stopped, and was not
        // completed before: the application may have kept the handler.
        std::string keptSince = {};
    };

    void begin(const std::string &actionId);
    void end(const char *how);
    void warn(const LogLine &line, const Request &request);
    Request &latest() { return _requests[static_cast<std::size_t>(_latest)]; }

    std::array<Request, HANDLERS> _requests;
    int _latest = 1;
    std::vector<std::string> _warnings;
};

} // namespace nelvo::testkit
