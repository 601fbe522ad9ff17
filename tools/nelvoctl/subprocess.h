// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace nelvoctl {

// Runs a program with more environment, its stdout led to our stderr, and hands over its stderr
// line by line; quiet() says that nothing has come for a while. Ctrl-C and SIGTERM are the
// program's to follow: it is waited for all the same.
//
// Returns its exit code, or minus the signal that ended it, 0 for one that asked it to end. Throws
// Failure when it cannot be started.
int runAndRead(const std::vector<std::string> &program,
               const std::vector<std::pair<std::string, std::string>> &environment,
               const std::function<void(const std::string &)> &line,
               const std::function<void()> &quiet);

} // namespace nelvoctl
