// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace nelvo::client {

// What a line of the library's log tells about a request. The texts are the library's own and are part of
// its interface.
enum class LogEvent {
    NONE,
    STARTED,        // the library
    STOPPED,        // the library
    ARRIVED,        // a request, of whom is not known yet
    SENDER,         // detail: the client whose request it is
    REFUSED,        // detail: a client that is not on the allow list
    STATE_REQUEST,  // overtakes the pending request
    ACTION_REQUEST, // overtakes the pending request
    CALLBACK_FOUND, // detail: the action id
    NO_STATE_CALLBACK,
    NO_ACTION_CALLBACK,
    NO_TIMER, // for the time-out, so the callback is not called
    REPORTED, // by the application; or its answer could not be built
    TIMED_OUT,
    UNKNOWN_HANDLER, // in a report; detail: its number
    OLD_REQUEST,     // in a report
    TOO_LATE,        // a report
    NOT_INITIALIZED, // for a report
    SENDING,         // an answer
    NOT_SENT,        // an answer; detail: why
};

struct LogRecord {
    LogEvent event;
    std::string detail;
};

// Takes the function that logged a line, and what stands behind "function(): " in it.
LogRecord readLogLine(const std::string &function, const std::string &message);

} // namespace nelvo::client
