// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <set>
#include <string>

namespace nelvo::testkit {

// The application on the simulated device; empty when there is none.
std::string simulatedAppId();

// Whether the path is that of the allow list, on the simulated device.
bool isAllowList(const char *path);
// Returns a new descriptor each time, since readers move its position; -1 if there is no allow list.
int openAllowList();
// The actions for which that application has registered a callback.
const std::set<std::string> &registeredActions();

} // namespace nelvo::testkit
