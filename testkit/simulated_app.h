// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace nelvo::testkit {

// The application on the simulated device; empty when there is none.
std::string simulatedAppId();

// Whether the path is that of the allow list, on the simulated device.
bool isAllowList(const char *path);
// Returns a new descriptor each time, since readers move its position; -1 if there is no allow list.
int openAllowList();

} // namespace nelvo::testkit
