// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sweep.h"

namespace nelvo::testkit {

// Attacks an application as a hostile client of the same user may: one in this process, on a virtual
// clock, and the running example (`hello`, the program given). An honest client that is connected
// meanwhile must get all its answers, one that comes afterwards must be served, and nothing may be left
// of the attacker. Then lets it start where it finds things that should not be there. Each EVERYth point only, counted from `first`.
Tally sweepHostilePeers(const std::string &example, int every, int first);

} // namespace nelvo::testkit
