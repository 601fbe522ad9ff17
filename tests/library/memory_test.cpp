// SPDX-License-Identifier: Apache-2.0
#include "driven_application.h"

#include "allocation_faults.h"
#include "message_service.h"
#include "nelvo_impl.h"
#include "response.h"
#include "watch.h"

namespace nelvo {
namespace {

constexpr int NONE = NELVO_ERROR_NONE;
constexpr int OOM = NELVO_ERROR_OUT_OF_MEMORY;
constexpr int FAILED = NELVO_ERROR_OPERATION_FAILED;
const std::string LONG(50, 'x'); // a name that needs memory wherever it is copied

class StartWithoutMemory : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(At, StartWithoutMemory, testing::Range(1, 41));

TEST_P(StartWithoutMemory, IsToldAndDoneOrNotDone) {
    testkit::Simulation device(LONG);
    const std::string entry =
        "<metadata key=\"http://developer.tizen.org/tizen/metadata/nelvo/sdk/version\" value=\"1.0";
    device.setManifest("<manifest><ui-application appid=\"" + LONG + "\">" + entry + "-alpha\"/>" +
                       entry + "\"/></ui-application></manifest>");
    testkit::failAllocation(GetParam());
    const int initialized = nelvo_initialize();
    testkit::stopFailingAllocations();

    const std::map<std::string, int> codes = {
        {"E _initInstance: out of memory", NONE}, // not the last word
        {"E nelvo_initialize: NelvoImpl instance is null", OOM},
        {"E nelvo_initialize: out of memory", OOM},
        {"E NelvoImpl: app_get_id failed ERROR[-12]", NONE},
        {"E getAppSdkVersion: app_info_create failed ERROR[-12]", NONE},
        {"E _nelvo_metadata_cb: out of memory, SDK version 1.0-alpha is skipped", NONE},
        {"E _nelvo_metadata_cb: out of memory, SDK version 1.0 is skipped",
         NELVO_ERROR_NOT_SUPPORTED},
        {"E initialize: message is failed", OOM},
        {"E initialize: Listen error: InvalidIOException", FAILED},
        {"E initialize: NelvoCommonData instance is null", OOM},
        {"E initialize: StateRequestImpl instance is null", OOM},
        {"E initialize: ActionRequestImpl instance is null", OOM},
    };
    const auto errors = device.logTexts(DLOG_ERROR);
    int wanted = NONE;
    for (const std::string &error : errors) {
        ASSERT_EQ(codes.count(error), 1u) << error;
        wanted = codes.at(error);
    }
    EXPECT_EQ(initialized, wanted);

    char *name = nullptr;
    const int named = nelvo_get_action_name(&name, &name);
    EXPECT_EQ(named == OOM, device.countLog(DLOG_ERROR, "nelvo_get_action_name",
                                            "NelvoImpl instance is null") == 1);
    EXPECT_EQ(device.countLog(DLOG_ERROR, "_initInstance", "out of memory"),
              named == OOM && GetParam() > 1 ? 1 : 0);
    const std::string null = "NelvoCommonData instance is null";
    EXPECT_EQ(device.countLog(DLOG_ERROR, "getActionName", null),
              device.countLog(DLOG_ERROR, "initialize", null));
    nelvo_deinitialize();
    EXPECT_EQ(testkit::liveHandles(), testkit::NO_HANDLES);
}

TEST(CoreWithoutMemory, IsMissingForGood) {
    testkit::Simulation device;
    testkit::failAllocation(1, true);
    EXPECT_EQ(nelvo_initialize(), OOM);
    testkit::stopFailingAllocations();
    EXPECT_EQ(nelvo_deinitialize(), OOM);
    EXPECT_EQ(nelvo_set_action_execution_cb(nullptr, nullptr, nullptr), OOM)
        << "the core comes before the arguments";

    messageService service("demo.client", "1");
    EXPECT_EQ(service.SetCB(nullptr), -1);
    EXPECT_EQ(service.UnsetCB(), -1);
    service.Send(rpc_port::message::Bundle(nullptr));
    EXPECT_EQ(sendResponse(createSuccessResponse("result", "x")), OOM);
    const std::string null = "NelvoImpl instance is null";
    EXPECT_THAT(device.logTexts(DLOG_ERROR),
                ElementsAre("E nelvo_initialize: " + null,
                            "E nelvo_deinitialize: " + null + ". Not initialized",
                            "E nelvo_set_action_execution_cb: " + null, "E SetCB: " + null,
                            "E UnsetCB: " + null, "E Send: " + null, "E sendResponse: " + null));
}

class WithoutMemory : public DrivenApplication {};

TEST_F(WithoutMemory, EachCallFailsAndSaysSo) {
    const struct {
        std::function<int()> call;
        std::map<std::string, int> codes; // by the one error line
    } rows[] = {
        {[this] { return callback.registerState(); },
         {{"E setAppStateRequestCb: StateRequestInfo is null", OOM}}},
        {[this] { return callback.registerAction(LONG.c_str()); },
         {{"E setActionExecutionCb: actionHandlerInfo is null", NELVO_ERROR_INVALID_PARAMETER},
          {"E nelvo_set_action_execution_cb: out of memory", OOM}}},
        {[] { return nelvo_unset_action_execution_cb(LONG.c_str()); },
         {{"E nelvo_unset_action_execution_cb: out of memory", OOM}}},
    };
    for (const auto &row : rows) {
        std::set<std::string> told;
        for (int nth = 1;; ++nth) {
            device.clearLog();
            testkit::failAllocation(nth);
            const int returned = row.call();
            if (testkit::stopFailingAllocations() == 0)
                break;
            const auto errors = device.logTexts(DLOG_ERROR);
            ASSERT_EQ(errors.size(), 1u);
            ASSERT_EQ(row.codes.count(errors[0]), 1u) << errors[0];
            EXPECT_EQ(returned, row.codes.at(errors[0])) << errors[0];
            told.insert(errors[0]);
        }
        EXPECT_EQ(told.size(), row.codes.size());
    }
}

TEST_F(WithoutMemory, NoHalfOfTheAllowListCounts) {
    device.setAllowList("first.client\n" + std::string(300, 'x') + "\ndemo.client\n");
    int uncreated = 0;
    for (int nth = 1, failed = 1; failed > 0; ++nth) {
        SCOPED_TRACE(nth);
        ASSERT_TRUE(client.connect());
        device.clearLog();
        testkit::failAllocation(nth);
        client.setCb();
        failed = testkit::stopFailingAllocations();
        if (device.countLog(DLOG_ERROR, "OnReceivedCB", "Failed to create callback") == 1) {
            EXPECT_FALSE(client.connected());
            ++uncreated;
        }
        if (!client.connected()) {
            ASSERT_TRUE(client.connect());
        }
        EXPECT_EQ(client.setCb(), 0) << "on the same connection";
    }
    EXPECT_EQ(uncreated, 1);
}

TEST_F(WithoutMemory, ACallOfTheClientIsRefused) {
    for (const bool sets : {true, false}) {
        std::set<int> returned;
        for (int nth = 1, failed = 1; failed > 0; ++nth) {
            ASSERT_TRUE(client.join());
            device.clearLog();
            testkit::failAllocation(nth);
            const int result = sets ? client.setCb() : client.unsetCb();
            failed = testkit::stopFailingAllocations();
            EXPECT_EQ(result == -1, device.countLog(DLOG_ERROR, sets ? "SetCB" : "UnsetCB",
                                                    "out of memory") == 1);
            returned.insert(result);
        }
        EXPECT_EQ(returned.count(-1), 1u);
    }
}

TEST_F(WithoutMemory, NoWatchBegins) {
    Ecore_Timer *timer = nullptr;
    testkit::failAllocation();
    EXPECT_EQ(beginWatch(timer, nullptr, nullptr, LONG, "f"), nullptr);
    EXPECT_EQ(testkit::stopFailingAllocations(), 1);
    EXPECT_EQ(timer, nullptr);
    EXPECT_EQ(host_sim_timer_count(), timers);
    EXPECT_EQ(device.logTexts(), std::vector<std::string>{"E f: out of memory"});
}

} // namespace
} // namespace nelvo
