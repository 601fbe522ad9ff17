// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace nelvoctl {

// The exit codes of the process; scripts rely on the numbers.
enum ExitCode {
    EXIT_CODE_SUCCESS = 0,
    EXIT_CODE_FAILURE = 1, // the application, or the library in it, answered with a failure
    EXIT_CODE_USAGE = 2,
    EXIT_CODE_UNREACHABLE = 3,
    EXIT_CODE_SILENT = 4,
};

// Why a command failed.
enum class Cause {
    FAILURE,
    NO_CALLBACK,
    APP_TIMEOUT,
    OUTPUT,
    CATALOGUE,
    DIFFERENT,
    USAGE,
    NOT_STARTED,
    NOBODY_LISTENS,
    NOT_INITIALISED,
    SDK_VERSION,
    OTHER_DIRECTORY,
    RUNTIME_DIRECTORY,
    OTHER_USER,
    REFUSED,
    NOT_ADMITTED,
    CALLBACK_REFUSED,
    CONNECTION_LOST,
    INTERNAL,
    MAIN_LOOP_STUCK,
    CLIENT_TIMEOUT,
    SUPERSEDED,
};

struct CauseEntry {
    Cause cause;
    const char *name; // in messages and JSON; scripts rely on it
    ExitCode exitCode;
    const char *meaning;
    const char *remedy;
};

const CauseEntry &entryOf(Cause cause);

// The exit codes, for --help.
extern const char *const EXIT_CODES;

// What each cause means and what to do then.
std::string causeTable();

// Thrown to end a command; run() reports it.
struct Failure : std::exception {
    Failure(Cause why, std::string what) : cause(why), message(std::move(what)) {}

    const CauseEntry &entry() const { return entryOf(cause); }
    const char *what() const noexcept override { return message.c_str(); }

    Cause cause;
    std::string message; // what happened, to whom; the entry says what to do
};

} // namespace nelvoctl
