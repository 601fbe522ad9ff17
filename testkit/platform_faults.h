// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <Ecore.h>
#include <bundle.h>

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

// The functions that can be made to fail, each with the errors that it is documented to give; 0
// stands for the null of those that return a pointer.
struct FailableCall {
    const char *function;
    std::vector<int> errors;
};
TESTKIT_API const std::vector<FailableCall> &failableCalls();

// What a test is told of the callbacks that the library hands to the platform, so that it can call
// them at moments, and with data, that the platform would not.
struct Hooks {
    std::function<void(Ecore_Task_Cb, void *data)> timer = [](Ecore_Task_Cb, void *) {}; // before
    std::function<void(bundle_iterator_t)> iterator = [](bundle_iterator_t) {}; // it is used
    std::function<void(int)> received = [](int) {}; // with what it returned to the platform
};
TESTKIT_API Hooks &hooks();

// How many bundles, parcels, stubs, app infos and timers the application's side holds now, as a text.
TESTKIT_API std::string liveHandles();
constexpr const char *NO_HANDLES = "0 bundles, 0 parcels, 0 stubs, 0 app infos, 0 timers";

} // namespace nelvo::testkit
