// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace nelvo::testkit {

// The application on the simulated device; empty when there is none.
std::string simulatedAppId();

} // namespace nelvo::testkit
