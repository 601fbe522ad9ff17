// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace nelvo::testkit {

// Makes allocations of this program fail: the nth from now on (1: the next), and with `always`
// every later one. Counts every `new`, throwing or not, of the whole process, and malloc and strdup
// of the code that is linked into the program itself.
void failAllocation(int nth = 1, bool always = false);

// Ends that, and gives the number of allocations that failed.
int stopFailingAllocations();

// How many blocks of `new` are live.
long liveBlocks();

} // namespace nelvo::testkit
