// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace nelvo::client {

// What a line of the library's log says about a request. The texts are part of the library's
// interface.
enum class LogEvent {
    NONE,
    STARTED,        // the library
    STOPPED,        // the library
    ARRIVED,        // a request, whose client the next line names
    SENDER,         // detail: the client that sent the request
    REFUSED,        // detail: a client that is not on the allow list
    STATE_REQUEST,  // overtakes the pending request
    ACTION_REQUEST, // overtakes the pending request
    CALLBACK_SET,   // for an action; detail: its id
    CALLBACK_UNSET, // for an action; detail: its id
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

// Takes the name of the function that logged a line, and the text after "function(): " in the line.
LogRecord readLogLine(const std::string &function, const std::string &message);

} // namespace nelvo::client
