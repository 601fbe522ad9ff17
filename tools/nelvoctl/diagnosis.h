// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "cause.h"

namespace nelvoctl {

struct Target;

extern const char *const ALLOW_LIST_FILE;

// Whether the allow list of this machine lets the client talk to applications.
enum class Admission { NO_LIST, LISTED, NOT_LISTED };
Admission admissionOf(const std::string &clientId);

// Whether the application's main loop responds. Only connects: replaces no registration and
// overtakes no request.
struct Probe {
    bool answers = false;
    int error = 0; // of the attempt to connect; not 0: nobody is there
    double seconds = 0;
};
Probe probe(const std::string &appId, double patienceSeconds);

// Each finds out why a step failed, from what the system shows about the application's process.
Failure explainUnreachable(const std::string &appId, int error);
Failure explainStuck(const std::string &appId, double seconds);
Failure explainRefusedCallback(const Target &target, bool withoutReply);
Failure explainSilence(const Target &target);

// Formats a number of seconds for messages.
std::string shown(double seconds);

} // namespace nelvoctl
