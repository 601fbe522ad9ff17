// SPDX-License-Identifier: Apache-2.0
#include "driven_application.h"

#include <cstdlib>

#include <Ecore.h>

namespace nelvo {
namespace {

// What an application does from inside a callback, in each of the places where one is called.
struct Deed {
    const char *what;
    std::function<void(void *handler)> act;
    bool stops = false; // the library is not initialised afterwards
};

class ReentrancyTest : public DrivenApplication {
protected:
    std::vector<Deed> deeds() {
        return {
            {"nothing", [](void *) {}},
            {"initialize", [](void *) { EXPECT_EQ(nelvo_initialize(), NELVO_ERROR_NONE); }},
            {"deinitialize", [](void *) { EXPECT_EQ(nelvo_deinitialize(), NELVO_ERROR_NONE); },
             true},
            {"restart", [](void *) { restart(); }},
            {"restart, and a client comes",
             [this](void *) {
                 restart();
                 EXPECT_TRUE(client.join());
             }},
            {"complete, then stop",
             [](void *handler) {
                 nelvo_complete_action_execution(handler, "done");
                 nelvo_complete_app_state_request(handler, "{}");
                 nelvo_deinitialize();
             },
             true},
            {"stop, then complete",
             [](void *handler) {
                 nelvo_deinitialize();
                 EXPECT_EQ(nelvo_complete_action_execution(handler, "done"),
                           NELVO_ERROR_OPERATION_FAILED);
                 EXPECT_EQ(nelvo_complete_app_state_request(handler, "{}"),
                           NELVO_ERROR_OPERATION_FAILED);
             },
             true},
            {"remove the registrations",
             [](void *) {
                 nelvo_unset_action_execution_cb("play");
                 nelvo_unset_app_state_request_cb();
             }},
            {"replace the registrations",
             [](void *) {
                 nelvo_set_action_execution_cb("play", Callback::action, nullptr);
                 nelvo_set_app_state_request_cb(Callback::state, nullptr);
                 nelvo_set_action_execution_cb("play", nullptr, nullptr);
                 nelvo_set_app_state_request_cb(nullptr, nullptr);
             }},
            {"look the action up",
             [](void *handler) {
                 char *name = nullptr;
                 EXPECT_EQ(nelvo_get_action_name(handler, &name), NELVO_ERROR_NONE);
                 std::free(name);
             }},
            {"run the loop", [](void *) { ecore_main_loop_iterate(); }},
            {"the next request overtakes",
             [this](void *handler) {
                 client.request("unknown", 50);
                 EXPECT_EQ(nelvo_complete_action_execution(handler, "done"), NELVO_ERROR_NONE);
             }},
            {"the client goes, then complete",
             [this](void *handler) {
                 client.disconnect();
                 nelvo_complete_action_execution(handler, "done");
                 nelvo_complete_app_state_request(handler, "{}");
             }},
            {"thirty seconds pass", [this](void *) { device.advance(31); }},
        };
    }
};

TEST_F(ReentrancyTest, AnApplicationMayDoAnythingInsideItsCallbacks) {
    for (const char *place : {"at once", "after the wait", "state"})
        for (const Deed &deed : deeds()) {
            SCOPED_TRACE(std::string(place) + ": " + deed.what);
            nelvo_initialize();
            ASSERT_TRUE(client.join());
            client.answers.clear();
            callback = {};
            callback.then = [&](void *handler, bundle *request) {
                callback.then = [](void *, bundle *) {};
                deed.act(handler);
                char *text = nullptr; // the request outlives whatever has been done
                if (request) {
                    EXPECT_STREQ(bundle_get_str(request, "actionId", &text) ? "" : text, "play");
                }
            };
            if (std::string(place) == "state") {
                callback.registerState();
                client.request("getAppContext", 1);
            } else if (std::string(place) == "at once") {
                callback.registerAction("play");
                client.request("play", 1);
            } else {
                client.request("play", 1);
                callback.registerAction("play");
                device.advance(0.02);
            }
            ASSERT_EQ(callback.count(), 1);
            device.advance(40);

            EXPECT_EQ(callback.registerState() == NELVO_ERROR_NONE, !deed.stops);
            nelvo_initialize();
            callback.registerState();
            callback.then = [](void *handler, bundle *) {
                nelvo_complete_app_state_request(handler, "{}");
            };
            ASSERT_TRUE(client.join());
            client.answers.clear();
            client.request("getAppContext", 2);
            ASSERT_EQ(answerCount(), 1);
            EXPECT_TRUE(answer().response.succeeded());
            nelvo_unset_action_execution_cb("play");
            nelvo_unset_app_state_request_cb();
        }
}

} // namespace
} // namespace nelvo
