// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace nelvoctl {

// Runs a program with additional environment variables. Redirects the program's stdout to this
// process's stderr, and calls line() for each line of the program's stderr; calls quiet() when no
// line has come for a while. Ctrl-C and SIGTERM end the program, and this function waits for that.
//
// Returns the program's exit code, or minus the signal that ended it, or 0 if that signal was
// Ctrl-C's or SIGTERM. Throws Failure if the program cannot be started.
int runAndRead(const std::vector<std::string> &program,
               const std::vector<std::pair<std::string, std::string>> &environment,
               const std::function<void(const std::string &)> &line,
               const std::function<void()> &quiet);

} // namespace nelvoctl
