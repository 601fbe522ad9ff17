// SPDX-License-Identifier: Apache-2.0
#include "driven_application.h"

#include <cstring>

#include "action_request_impl.h"
#include "nelvo_common_data.h"

namespace nelvo {
namespace {

constexpr const char *IDLE = "0 bundles, 0 parcels, 1 stubs, 0 app infos, 0 timers";
constexpr const char *NOT_REGISTERED = "Action Execution callback not registered";

class ActionRequestTest : public DrivenApplication {
protected:
    void registerPlay() { ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE); }
    int complete(const char *result = "done") {
        return nelvo_complete_action_execution(callback.last(), result);
    }
};

TEST_F(ActionRequestTest, WaitsForARegistrationForFiveTicks) {
    const struct {
        double registeredAt;
        double calledAt; // negative: not called, answered with a failure at 0.12
    } rows[] = {{0.001, 0.02}, {0.05, 0.06}, {0.099, 0.10}, {0.101, -1}, {10, -1}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.registeredAt);
        callback = {};
        client.answers.clear();
        double calledAt = -1;
        const double start = host_sim_now();
        callback.then = [&](void *, bundle *) { calledAt = host_sim_now() - start; };
        client.request("late", 5, "p");
        device.advance(std::min(row.registeredAt, 0.119));
        EXPECT_EQ(answerCount(), 0);
        if (row.registeredAt < 1) {
            ASSERT_EQ(callback.registerAction("late"), NELVO_ERROR_NONE);
        }
        device.advance(0.121);
        EXPECT_NEAR(calledAt, row.calledAt, 1e-6);
        if (row.calledAt > 0) {
            EXPECT_EQ(callback.params.back(), "p");
            EXPECT_EQ(complete(), NELVO_ERROR_NONE);
            device.advance();
        }
        ASSERT_EQ(answerCount(), 1);
        EXPECT_EQ(answer().fields,
                  row.calledAt > 0 ? success("result", "done") : failure("result", NOT_REGISTERED));
        EXPECT_EQ(nelvo_unset_action_execution_cb("late"), NELVO_ERROR_NONE);
        EXPECT_EQ(testkit::liveHandles(), IDLE);
    }
}

TEST_F(ActionRequestTest, KeepsStringsAndBytesOfAWaitingRequest) {
    const client::BundlePtr request = client::makeRequest({"late", 9, {}, "p"});
    const char *array[] = {"a", "b"};
    const unsigned char bytes[] = {1, 0, 3};
    bundle_add_str_array(request.get(), "array", array, 2);
    bundle_add_byte(request.get(), "bytes", bytes, sizeof(bytes));
    int entries = 0;
    callback.then = [&](void *, bundle *copy) {
        void *kept = nullptr;
        std::size_t size = 0;
        entries = bundle_get_count(copy);
        ASSERT_EQ(bundle_get_byte(copy, "bytes", &kept, &size), BUNDLE_ERROR_NONE);
        ASSERT_EQ(size, sizeof(bytes));
        EXPECT_EQ(std::memcmp(kept, bytes, size), 0);
        ASSERT_EQ(bundle_get_byte(copy, "requestId", &kept, &size), BUNDLE_ERROR_NONE);
        EXPECT_EQ(size, 8u);
    };
    client.send(request.get());
    EXPECT_EQ(device.countLog(DLOG_ERROR, "_bundleDataCb", "key value is array type"), 1);
    ASSERT_EQ(callback.registerAction("late"), NELVO_ERROR_NONE);
    device.advance(0.02);
    EXPECT_EQ(callback.params, std::vector<std::string>{"p"});
    EXPECT_EQ(entries, 4); // all but the array
}

// Ticks that the platform should not make, at the moments at which they find something missing.
TEST_F(ActionRequestTest, GivesTheWaitUpWhenSomethingIsMissing) {
    Ecore_Task_Cb tick = nullptr;
    void *self = nullptr;
    testkit::hooks().timer = [&](Ecore_Task_Cb added, void *data) {
        tick = added;
        self = data;
    };
    testkit::hooks().iterator = [](bundle_iterator_t iterator) {
        iterator("key", BUNDLE_TYPE_STR, nullptr, nullptr);
    };
    client.request("late");
    EXPECT_EQ(device.logTexts().back(), "E _bundleDataCb: Bundle data is null");
    EXPECT_EQ(device.logTexts(DLOG_ERROR).size(), 1u);
    testkit::hooks() = {};

    std::string &clientId = NelvoCommonData::getInstance()->_nelvoClientAppId;
    const struct {
        const char *logged;
        std::function<Eina_Bool()> tickWithout;
    } rows[] = {
        {"actionPtr is null", [&] { return tick(nullptr); }},
        {"Nelvo Client app id is null",
         [&] {
             clientId.clear();
             return tick(self);
         }},
        {"ActionRequest _actionExecutionFireTimer is null",
         [&] {
             clientId = "demo.client";
             return tick(self);
         }},
        {"ActionRequest bundle data is null",
         [&] {
             device.advance(0.02); // the platform's own tick, which ends the timer
             device.clearLog();
             restart();
             return tick(self);
         }},
    };
    for (const auto &row : rows) {
        device.clearLog();
        EXPECT_EQ(row.tickWithout(), ECORE_CALLBACK_CANCEL);
        ASSERT_EQ(device.logTexts(DLOG_ERROR).size(), 1u);
        EXPECT_EQ(device.logTexts(DLOG_ERROR)[0],
                  "E _actionExecutionFireCb: " + std::string(row.logged));
    }
    EXPECT_EQ(host_sim_timer_count(), 0);
    EXPECT_EQ(answerCount(), 0);
}

TEST_F(ActionRequestTest, KeepsNothingOfARequestThatCannotWait) {
    for (const char *missing : {"ecore_timer_add", "bundle_add_str", "bundle_add_byte"}) {
        testkit::failPlatformCall(missing);
        client.request("late");
        EXPECT_EQ(testkit::stopFailing(), 1);
        EXPECT_EQ(testkit::liveHandles(), IDLE) << missing;
    }
}

TEST_F(ActionRequestTest, StartsNoSecondWait) {
    client.request("late");
    const int waiting = host_sim_timer_count();
    ActionRequestImpl::getInstance()->receiveRequest("demo.client", "late", nullptr);
    EXPECT_EQ(host_sim_timer_count(), waiting);
    device.advance(1);
    EXPECT_EQ(
        device.logTexts(DLOG_ERROR),
        std::vector<std::string>{"E _actionExecutionFireCb: ActionRequest bundle data is null"});
    EXPECT_EQ(answerCount(), 0);
}

TEST_F(ActionRequestTest, NumbersHandlersInTurnAcrossBothKinds) {
    registerPlay();
    ASSERT_EQ(callback.registerState(), NELVO_ERROR_NONE);
    const int first = 2;
    for (int i = 0; i < 205; ++i) {
        client.request(i % 3 == 0 ? "getAppContext" : "play", 1);
        ASSERT_EQ(numberOf(callback.last()), (first + i) % 100) << i;
        ASSERT_EQ(callback.last(), callback.handlers[static_cast<std::size_t>(i % 100)]) << i;
    }
}

} // namespace
} // namespace nelvo
