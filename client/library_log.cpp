// SPDX-License-Identifier: Apache-2.0
#include "library_log.h"

#include <string_view>

namespace nelvo::client {

namespace {

// The first row that matches counts. The detail stands between the two parts of the text.
constexpr struct {
    std::string_view function; // or the beginning of its name
    std::string_view before, behind;
    LogEvent event;
} LINES[] = {
    {"initialize", "App SDK NelvoImpl is initialized", "", LogEvent::STARTED},
    {"deinitialize", "NelvoImpl is deinitialized", "", LogEvent::STOPPED},
    {"Send", "Call stub Sender ", "", LogEvent::SENDER},
    {"Send", "Call stub Send", "", LogEvent::ARRIVED},
    {"isPermittedSender", "", " is not permitted app id", LogEvent::REFUSED},
    {"executeRequest", "App State request recieved", "", LogEvent::STATE_REQUEST},
    {"executeRequest", "Action Execution request recieved", "", LogEvent::ACTION_REQUEST},
    {"", "'", "' Action Execution cb has been set", LogEvent::CALLBACK_SET},
    {"", "'", "' Action Execution cb has been unset", LogEvent::CALLBACK_UNSET},
    {"", "Found execute action Id: ", "  Callback: ", LogEvent::CALLBACK_FOUND},
    {"", "There is no app state request callback.", "", LogEvent::NO_STATE_CALLBACK},
    {"", "There is no matching action execution callback.", "", LogEvent::NO_ACTION_CALLBACK},
    {"", "the completion timer can't be created", "", LogEvent::NO_TIMER},
    {"complete", "Action result:", "", LogEvent::REPORTED},
    {"complete", "App result:", "", LogEvent::REPORTED},
    {"complete", "bundle_create is failed", "", LogEvent::REPORTED},
    {"complete", "Couldn't find requestId corresponding to actionHandler ", "",
     LogEvent::UNKNOWN_HANDLER},
    {"complete", "Discarding response", "", LogEvent::OLD_REQUEST},
    {"complete", "", " recieved after timeout, discarding", LogEvent::TOO_LATE},
    {"complete", "Nelvo is not initialized", "", LogEvent::NOT_INITIALIZED},
    {"_", "", " timed out. Failed to execute action.", LogEvent::TIMED_OUT},
    {"sendResponse", "App Id ", "", LogEvent::SENDING},
    {"sendResponse", "", "", LogEvent::NOT_SENT},
};

bool startsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

} // namespace

LogRecord readLogLine(const std::string &function, const std::string &message) {
    for (const auto &line : LINES) {
        const std::size_t end = line.behind.empty() ? message.size() : message.rfind(line.behind);
        if (startsWith(function, line.function) && startsWith(message, line.before) &&
            end != std::string::npos && end >= line.before.size())
            return {line.event, message.substr(line.before.size(), end - line.before.size())};
    }
    return {LogEvent::NONE, ""};
}

} // namespace nelvo::client
