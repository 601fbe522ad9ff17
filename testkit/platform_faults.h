// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <Ecore.h>
#include <bundle.h>
#include <nelvo/testkit.h>

#include "testkit_export.h"

namespace nelvo::testkit {

// The functions that failPlatformCall() takes, those with a wrapper in platform_faults.cpp, each
// with the errors that it is documented to give; 0 stands for the null of those that return a
// pointer.
struct FailableCall {
    const char *function;
    std::vector<int> errors;
};
TESTKIT_API const std::vector<FailableCall> &failableCalls();

// Tells a test which callbacks the library passes to the platform, so that the test can call them
// at moments and with data that the platform would not choose.
struct Hooks {
    std::function<void(Ecore_Task_Cb, void *data)> timer = [](Ecore_Task_Cb, void *) {}; // before
    std::function<void(bundle_iterator_t)> iterator = [](bundle_iterator_t) {}; // it is used
    std::function<void(int)> received = [](int) {}; // with what it returned to the platform
};
TESTKIT_API Hooks &hooks();

// How many bundles, parcels, stubs, app infos and timers the application and the library hold now.
TESTKIT_API std::string liveHandles();
constexpr const char *NO_HANDLES = "0 bundles, 0 parcels, 0 stubs, 0 app infos, 0 timers";

// Whether this process resolves the platform's names to the test kit's functions.
bool standsBeforePlatform();

} // namespace nelvo::testkit
