// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace nelvoctl {

// The directory where applications listen, as the host platform chooses it: from this process's
// environment, or from the environment that lookup reads. Empty if memory is short.
std::string runtimeDir();
std::string runtimeDir(std::function<std::string(const char *name)> lookup);

// The catalogue of actions of a process with that program and environment, as the host platform
// finds it. The file need not exist.
std::string actionsPath(const std::string &program,
                        std::function<std::string(const char *name)> lookup);

// Whether the other path leads to our runtime directory.
bool isRuntimeDir(const std::string &path);

// Why the directory cannot be used, such as "DIR belongs to another user"; empty if it can.
std::string faultOf(const std::string &dir);

// The sorted ids of the applications that have a socket there, even if their processes are dead.
std::vector<std::string> listedApps(const std::string &dir);

} // namespace nelvoctl
