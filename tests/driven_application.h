// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <host/sim.h>
#include <nelvo.h>

#include "client.h"
#include "platform_faults.h"
#include "simulation.h"

namespace nelvo {

using testing::ElementsAre;
using testing::IsEmpty;
using testkit::Client;
using Fields = std::map<std::string, std::string>;

// An application's callback: keeps what it is called with, then does what the test says.
struct Callback {
    std::vector<void *> handlers;
    std::vector<std::string> params; // the "actionParams" of each request
    std::function<void(void *handler, bundle *request)> then = [](void *, bundle *) {};

    void *last() const { return handlers.back(); }
    int count() const { return static_cast<int>(handlers.size()); }

    static void action(void *handler, bundle *request, void *data) {
        auto *self = static_cast<Callback *>(data);
        char *text = nullptr;
        self->handlers.push_back(handler);
        self->params.push_back(bundle_get_str(request, "actionParams", &text) == 0 ? text : "");
        const auto next = self->then; // the test may replace it meanwhile
        next(handler, request);
    }

    static void state(void *handler, void *data) {
        auto *self = static_cast<Callback *>(data);
        self->handlers.push_back(handler);
        const auto next = self->then;
        next(handler, nullptr);
    }

    int registerAction(const char *actionId) {
        return nelvo_set_action_execution_cb(actionId, action, this);
    }
    int registerState() { return nelvo_set_app_state_request_cb(state, this); }
};

inline int numberOf(void *handler) {
    return *static_cast<int *>(handler);
}

inline Fields success(const std::string &key, const std::string &value) {
    return {{"status_code", "ACTION_EXECUTION_SUCCESS"}, {key, value}};
}

inline Fields failure(const std::string &key, const std::string &message) {
    return {{"status_code", "ACTION_EXECUTION_FAILURE"}, {key, ""}, {"status_msg", message}};
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
        EXPECT_EQ(nelvo_deinitialize(), NELVO_ERROR_NONE);
        EXPECT_EQ(host_sim_timer_count(), 0);
        EXPECT_EQ(testkit::liveHandles(), "0 bundles, 0 parcels, 0 stubs, 0 app infos");
    }

    static void restart() {
        nelvo_deinitialize();
        ASSERT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
    }

    int answerCount() const { return static_cast<int>(client.answers.size()); }
    const client::Answer &answer() const { return client.answers.back(); }

    testkit::Simulation device;
    Client client;
    Callback callback;
    int timers = 0; // how many exist while no request is pending
};

} // namespace nelvo
