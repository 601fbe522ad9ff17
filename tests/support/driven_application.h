// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/sim.h>
#include <nelvo.h>
#include <nelvo/testkit.h>

#include "callback.h"
#include "child.h"
#include "client/envelope.h"
#include "platform_faults.h"

namespace nelvo {

using testing::ElementsAre;
using testing::IsEmpty;
using testkit::Callback;
using testkit::Client;
using testkit::failure;
using testkit::success;

// Runs a test in a child process: what the first call of the library decides stays decided for the
// life of its process.
template <typename Work>
void inFreshProcess(Work work) {
    const auto test = [&] { return work(), testing::Test::HasFailure() ? 1 : 0; };
    EXPECT_EQ(testkit::Child(test, testkit::Child::INHERITED).wait(), 0);
}

// An application on a simulated device, initialised, with one client that waits for its answers.
class DrivenApplication : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
        ASSERT_TRUE(client.join());
        device.clearLog();
        timers = host_sim_timer_count();
    }

    void TearDown() override {
        device.takeWarnings(); // our own, and meant
        EXPECT_EQ(nelvo_deinitialize(), NELVO_ERROR_NONE);
        EXPECT_EQ(host_sim_timer_count(), 0);
        EXPECT_EQ(testkit::liveHandles(), testkit::NO_HANDLES);
    }

    static void restart() {
        nelvo_deinitialize();
        ASSERT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
    }

    int answerCount() const { return static_cast<int>(client.answers.size()); }
    const testkit::Answer &answer() const { return client.answers.back(); }

    testkit::Simulation device;
    Client client;
    Callback callback;
    int timers = 0; // how many exist while no request is pending
};

} // namespace nelvo
