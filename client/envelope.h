// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <bundle.h>

namespace nelvo::client {

// The action id that asks for the application's state instead of an action.
extern const char *const STATE_ACTION_ID;

// What "status_code" says when the application has answered; any other value is a failure.
extern const char *const STATUS_SUCCESS;

struct BundleDeleter {
    void operator()(bundle *b) const { bundle_free(b); }
};
using BundlePtr = std::unique_ptr<bundle, BundleDeleter>;

struct Request {
    std::string actionId;
    std::uint64_t requestId = 0; // comes back in the response
    std::optional<std::string> actionType;
    std::optional<std::string> actionParams;
};

// A request in a bundle; null if memory is short.
BundlePtr makeRequest(const Request &request);

// Copies are cheap: they share the bundle.
struct Response {
    std::shared_ptr<bundle> content;
    std::map<std::string, std::string_view, std::less<>> fields; // the texts stay the content's
    std::optional<std::uint64_t> requestId;                      // empty: absent, or not 8 bytes

    // The text under key, or "" if there is none.
    std::string field(std::string_view key) const;
    bool succeeded() const;
};

// Reads the texts and the request id of a response, and ignores entries of other types.
Response readResponse(BundlePtr content);

} // namespace nelvo::client
