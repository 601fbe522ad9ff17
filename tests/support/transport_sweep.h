// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sweep.h"

namespace nelvo::testkit {

// Says what real clients have said again, and again, to an application: split at each byte; cut after
// each byte, by an end of both streams, by a reset and by the end of one of them; with each single bit
// flipped. The application must live, serve the next client as ever and keep nothing. Each EVERYth
// point only, counted from `first`.
Tally sweepTransport(int every, int first);

} // namespace nelvo::testkit
