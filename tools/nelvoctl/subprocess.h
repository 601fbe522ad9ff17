// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tap_reader.h"

namespace nelvoctl {

// What to do with what a program says.
struct Watcher {
    std::function<void(const std::string &)> line; // of its stderr
    std::function<void()> quiet;                   // when no line has come for a while
    // What passed between the program and a client. Called before the lines that the program has
    // written since.
    std::function<void(const TapEvent &)> passed;
};

// Runs a program with additional environment variables, and redirects its stdout to this process's
// stderr. Ctrl-C and SIGTERM end the program, and this function waits for that.
//
// Returns the program's exit code, or minus the signal that ended it, or 0 if that signal was
// Ctrl-C's or SIGTERM. Throws Failure if the program cannot be started.
int runAndRead(const std::vector<std::string> &program,
               const std::vector<std::pair<std::string, std::string>> &environment,
               const Watcher &watcher);

// How a program ended that runAndRead() gave a status for that is not 0.
std::string explainEnd(const std::string &program, int status);

} // namespace nelvoctl
