// SPDX-License-Identifier: Apache-2.0
#include "driven_application.h"

#include "allocation_faults.h"

namespace nelvo {
namespace {

constexpr int OOM = NELVO_ERROR_OUT_OF_MEMORY;
constexpr int FAILED = NELVO_ERROR_OPERATION_FAILED;

struct StartFault {
    const char *function;
    int error;
    int nth;
    int initialized; // what nelvo_initialize() returns
    const char *logged;
};

void PrintTo(const StartFault &fault, std::ostream *out) {
    *out << fault.function << fault.error;
}

class StartFaults : public testing::TestWithParam<StartFault> {};

TEST_P(StartFaults, LeaveNothingBehind) {
    const StartFault &fault = GetParam();
    testkit::Simulation device;
    testkit::failPlatformCall(fault.function, fault.error, fault.nth);
    EXPECT_EQ(nelvo_initialize(), fault.initialized);
    EXPECT_EQ(testkit::stopFailing(), 1);
    EXPECT_THAT(device.logTexts(DLOG_ERROR), testing::Contains(testing::HasSubstr(fault.logged)));

    Client client;
    EXPECT_EQ(client.connect(), fault.initialized == NELVO_ERROR_NONE);
    if (fault.initialized != NELVO_ERROR_NONE) {
        EXPECT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
        EXPECT_TRUE(client.join());
    }
    nelvo_deinitialize();
}

INSTANTIATE_TEST_SUITE_P(
    Platform, StartFaults,
    testing::Values(
        StartFault{"app_get_id", -22, 1, NELVO_ERROR_NONE, "E NelvoImpl: app_get_id failed"},
        StartFault{"app_info_create", -2, 1, NELVO_ERROR_NONE,
                   "E getAppSdkVersion: app_info_create failed ERROR[-2]"},
        StartFault{"app_info_foreach_metadata", -5, 1, NELVO_ERROR_NONE,
                   "E getAppSdkVersion: app_info_foreach_metadata failed ERROR[-5]"},
        StartFault{"rpc_port_stub_create", -12, 1, FAILED,
                   "E initialize: Listen error: InvalidIOException"},
        StartFault{"rpc_port_stub_add_connected_event_cb", -12, 1, FAILED, "Listen error"},
        StartFault{"rpc_port_stub_add_disconnected_event_cb", -12, 1, FAILED, "Listen error"},
        StartFault{"rpc_port_stub_add_received_event_cb", -12, 1, FAILED, "Listen error"},
        StartFault{"rpc_port_stub_listen", -5, 1, FAILED,
                   "E initialize: Listen error: InvalidIOException"},
        StartFault{"rpc_port_stub_listen", -22, 1, FAILED,
                   "E initialize: Listen error: InvalidIOException"}));

TEST(StartTest, GoesOnDeafAfterARefusalThatIsOnlyLogged) {
    testkit::Simulation device;
    testkit::failPlatformCall("rpc_port_stub_listen", RPC_PORT_ERROR_PERMISSION_DENIED);
    EXPECT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
    testkit::stopFailing();
    EXPECT_EQ(device.countLog(DLOG_ERROR, "Listen", "Failed to listen stub"), 1);
    Client client;
    EXPECT_FALSE(client.connect());
    EXPECT_EQ(nelvo_deinitialize(), NELVO_ERROR_NONE);
}

TEST(StartTest, GivesUpForGoodWhenTheCoreCannotBeAllocated) {
    testkit::Simulation device;
    testkit::failAllocation(1, true);
    EXPECT_EQ(nelvo_initialize(), OOM);
    testkit::stopFailingAllocations();
    EXPECT_EQ(device.countLog(DLOG_ERROR, "nelvo_initialize", "NelvoImpl instance is null"), 1);
    EXPECT_EQ(nelvo_deinitialize(), OOM);
    EXPECT_EQ(device.countLog(DLOG_ERROR, "nelvo_deinitialize",
                              "NelvoImpl instance is null. Not initialized"),
              1);
    EXPECT_EQ(nelvo_set_action_execution_cb(nullptr, nullptr, nullptr), OOM)
        << "the core comes before the arguments";
}

class FaultsTest : public DrivenApplication {
protected:
    void SetUp() override {
        DrivenApplication::SetUp();
        ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE);
        ASSERT_EQ(state.registerState(), NELVO_ERROR_NONE);
        callback.then = [this](void *handler, bundle *) {
            completed = nelvo_complete_action_execution(handler, "done");
        };
        state.then = [this](void *handler, bundle *) {
            completed = nelvo_complete_app_state_request(handler, "{}");
        };
    }

    void expectHealthy() {
        if (!client.connected()) {
            ASSERT_TRUE(client.join());
        }
        client.answers.clear();
        for (const char *action : {"play", "getAppContext"})
            client.request(action, 99);
        ASSERT_EQ(answerCount(), 2);
        EXPECT_TRUE(client.answers[0].response.succeeded());
        EXPECT_TRUE(client.answers[1].response.succeeded());
        EXPECT_EQ(host_sim_timer_count(), timers);
    }

    Callback state;
    int completed = 1; // what the last completion returned; 1: none yet
};

TEST_F(FaultsTest, OfThePlatformAreToldAndLeaveTheNextRequestWhole) {
    const std::string success = "ACTION_EXECUTION_SUCCESS";
    const std::string failure = "ACTION_EXECUTION_FAILURE";
    const struct {
        const char *function;
        const char *action;
        int nth;
        int completed;
        std::string status; // of the one answer; empty: none
        const char *logged;
    } rows[] = {
        {"ecore_timer_add", "play", 1, 1, failure, "E receiveRequest: the completion timer"},
        {"ecore_timer_add", "getAppContext", 1, 1, failure,
         "E receiveRequest: the completion timer"},
        {"ecore_timer_add", "unknown", 1, 1, failure, "E receiveRequest: the registration timer"},
        {"bundle_create", "play", 1, OOM, "", "E completeActionExecution: bundle_create is failed"},
        {"bundle_create", "getAppContext", 1, OOM, "",
         "E completeAppStateRequest: bundle_create is failed"},
        {"bundle_add_str", "play", 2, OOM, "",
         "E completeActionExecution: bundle_create is failed"},
        {"bundle_add_byte", "play", 1, OOM, "",
         "E completeActionExecution: bundle_create is failed"},
        {"bundle_create", "unknown", 1, 1, "", "E receiveRequest: bundle_create is failed"},
        {"bundle_create", "unknown", 2, 1, "", "E _actionExecutionFireCb: bundle_create is failed"},
        {"bundle_add_str", "unknown", 1, 1, failure,
         "E receiveRequest: the request can't be copied"},
        {"bundle_keyval_get_basic_val", "unknown", 1, 1, failure, "the request can't be copied"},
        {"bundle_get_str", "unknown", 2, 1, failure, "There is no matching"},
        {"bundle_get_str", "play", 1, 1, "", "E executeRequest: request without actionId"},
        {"bundle_get_byte", "play", 1, 1, "", "E executeRequest: request whose requestId"},
        {"bundle_dup", "play", 1, 1, "", "E executeRequest: request without actionId"},
        {"app_get_id", "play", 1, FAILED, "", "E sendResponse: app_get_id failed ERROR[-1]"},
        {"app_get_id", "getAppContext", 1, 0, "", "E sendResponse: app_get_id failed ERROR[-1]"},
        {"rpc_port_parcel_create", "play", 1, 0, success, nullptr}, // the reply, which Send has not
        {"rpc_port_parcel_create", "play", 2, FAILED, "", "response error: InvalidIOException"},
        {"rpc_port_parcel_write_int32", "play", 2, FAILED, "",
         "response error: InvalidIOException"},
        {"rpc_port_parcel_write_bool", "play", 1, FAILED, "", "response error: InvalidIOException"},
        {"rpc_port_parcel_write_string", "play", 1, FAILED, "",
         "response error: InvalidIOException"},
        {"rpc_port_parcel_write_bundle", "play", 1, FAILED, "",
         "response error: InvalidIOException"},
        {"rpc_port_parcel_send", "play", 1, 0, "", nullptr},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.function) + " " + row.action + " " + std::to_string(row.nth));
        completed = 1;
        client.answers.clear();
        device.clearLog();
        testkit::failPlatformCall(row.function, -1, row.nth);
        client.request(row.action, 5);
        device.advance(40);
        EXPECT_EQ(testkit::stopFailing(), 1);
        EXPECT_EQ(completed, row.completed);
        ASSERT_EQ(answerCount(), row.status.empty() ? 0 : 1);
        if (!row.status.empty()) {
            EXPECT_EQ(answer().response.field("status_code"), row.status);
            EXPECT_EQ(answer().response.requestId, 5u);
        }
        if (row.logged) {
            EXPECT_THAT(device.logTexts(DLOG_ERROR),
                        testing::Contains(testing::HasSubstr(row.logged)));
        }
        expectHealthy();
    }
}

TEST_F(FaultsTest, OfTheFailureAnswersEndTheRequestAllTheSame) {
    callback.then = [](void *, bundle *) {};
    state.then = callback.then;
    for (const char *action : {"play", "getAppContext"}) {
        SCOPED_TRACE(action);
        client.request(action, 5);
        testkit::failPlatformCall("bundle_create");
        device.advance(31);
        EXPECT_EQ(testkit::stopFailing(), 1);
        EXPECT_EQ(answerCount(), 0);
        const int repeated = std::string(action) == "play"
                                 ? nelvo_complete_action_execution(callback.last(), "late")
                                 : nelvo_complete_app_state_request(state.last(), "late");
        EXPECT_EQ(repeated, FAILED) << "the record of the request stays";
    }
    nelvo_unset_app_state_request_cb();
    testkit::failPlatformCall("bundle_create");
    client.request("getAppContext");
    EXPECT_EQ(testkit::stopFailing(), 1);
    EXPECT_EQ(device.countLog(DLOG_ERROR, "receiveRequest", "Bundle create failed"), 1);
    EXPECT_EQ(answerCount(), 0);
}

TEST_F(FaultsTest, OfTheReplyEndTheConnection) {
    for (const char *function : {"rpc_port_parcel_create", "rpc_port_parcel_create_from_port",
                                 "rpc_port_parcel_write_int32"}) {
        SCOPED_TRACE(function);
        testkit::failPlatformCall(function, RPC_PORT_ERROR_OUT_OF_MEMORY);
        EXPECT_LT(client.unsetCb(), -1);
        EXPECT_EQ(testkit::stopFailing(), 1);
        EXPECT_FALSE(client.connected());
        expectHealthy();
    }
}

TEST_F(FaultsTest, OfMemoryLeaveNoHalfOfTheAllowList) {
    device.setAllowList("first.client\n" + std::string(300, 'x') + "\ndemo.client\n");
    for (int nth = 1, failed = 1; failed > 0; ++nth) {
        SCOPED_TRACE(nth);
        ASSERT_TRUE(client.connect());
        testkit::failAllocation(nth);
        client.setCb();
        failed = testkit::stopFailingAllocations();
        if (!client.connected()) {
            ASSERT_TRUE(client.connect());
        }
        EXPECT_EQ(client.setCb(), 0) << "on the same connection";
    }
}

} // namespace
} // namespace nelvo
