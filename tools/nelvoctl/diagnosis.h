// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>

#include "cause.h"
#include "client/message_proxy.h"
#include "timer.h"

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
    int error = 0;  // of the attempt to connect; not 0: nobody is there
    int reason = 0; // the system's, as errno
    double seconds = 0;
};

// Finds that out without blocking the main loop.
class Prober {
public:
    // Calls done once, possibly before start() returns; done may destroy the prober. A prober that
    // is destroyed calls nothing any more.
    void start(const std::string &appId, double patienceSeconds,
               std::function<void(const Probe &)> done);

private:
    void finish();

    std::function<void(const Probe &)> _done; // null unless a probe is under way
    Probe _result;
    double _start = 0;
    nelvo::client::MessageProxy _proxy;
    Timer _timer;
};

constexpr double PROBE_SECONDS = 4;

// Runs the main loop meanwhile.
Probe probe(const std::string &appId, double patienceSeconds);

// Each finds out why a step failed, from what the system shows about the application's process. The
// probe must have been made after the step.
Failure explainUnreachable(const std::string &appId, int error, int reason);
Failure explainStuck(const std::string &appId, double seconds);
Failure explainRefusedCallback(const Target &target);
Failure explainNoReply(const Target &target, const Probe &now); // to the response callback
Failure explainSilence(const Target &target, const Probe &now);

// Formats a number of seconds for messages.
std::string shown(double seconds);

} // namespace nelvoctl
