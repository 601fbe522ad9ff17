// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "client/envelope.h"

namespace nelvoctl {

// What the process ends with; scripts rely on the numbers.
enum ExitCode {
    EXIT_CODE_SUCCESS = 0,
    EXIT_CODE_FAILURE = 1, // the application, or the library in it, answered with a failure
    EXIT_CODE_USAGE = 2,
    EXIT_CODE_UNREACHABLE = 3,
    EXIT_CODE_TIMEOUT = 4,
};

struct Call {
    std::string appId;
    std::string clientId; // who we are towards the application
    double timeoutSeconds = 0;
    nelvo::client::Request request;
};

struct Outcome {
    ExitCode code = EXIT_CODE_UNREACHABLE;
    nelvo::client::Response response; // filled only when there was one
    std::string error;                // what happened and what to do, when there was none
};

// Connects, sends the request and waits for its response, on a main loop of its own.
Outcome exchange(const Call &call);

} // namespace nelvoctl
