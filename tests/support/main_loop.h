// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace nelvo::testkit::soak {

// Runs the player while clients that send no acceptable request connect to it as fast as they can.
// Prints what came of it. True when it makes no system call that may block but the loop's own wait
// (left out, and said so, where strace may not trace); when a request that it never completes is
// answered after 30 seconds, to a tenth; and when, left alone, it does not wake for a minute.
bool keepsItsMainLoop(const std::string &player);

} // namespace nelvo::testkit::soak
