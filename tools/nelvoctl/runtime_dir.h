// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace nelvoctl {

// The directory where applications listen, as the host platform chooses it: from our environment, or from
// the one that lookup reads. Empty when memory ran out.
std::string runtimeDir();
std::string runtimeDir(std::function<std::string(const char *name)> lookup);

// Whether the other path leads to our runtime directory.
bool isRuntimeDir(const std::string &path);

// Why it cannot be used, as in "DIR belongs to another user"; empty when it can.
std::string faultOf(const std::string &dir);

// The ids of the applications that have a socket there, dead ones included; in order.
std::vector<std::string> listedApps(const std::string &dir);

} // namespace nelvoctl
