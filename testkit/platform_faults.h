// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "testkit_export.h"

namespace nelvo::testkit {

// Makes one platform function fail: for its nth call from now on (1: the next), and with `always`
// for every later one. Functions that return a pointer then return null, the others the error.
// Calls of the test kit's own clients are neither counted nor failed.
//
// The last call holds; it names a function that has a wrapper in platform_faults.cpp.
TESTKIT_API void failPlatformCall(const char *function, int error = -1, int nth = 1,
                                  bool always = false);

// Ends that, and gives the number of calls that failed.
TESTKIT_API int stopFailing();

} // namespace nelvo::testkit
