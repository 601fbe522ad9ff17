// SPDX-License-Identifier: Apache-2.0
#include "driven_application.h"

namespace nelvo {
namespace {

constexpr const char *NOT_REGISTERED = "App state request callback not registered";
constexpr const char *TIMED_OUT = "App state request execution timed out";

class StateRequestTest : public DrivenApplication {
protected:
    void requestState(std::uint64_t requestId = 1) { client.request("getAppContext", requestId); }
    int complete(const char *state = "{}") {
        return nelvo_complete_app_state_request(callback.last(), state);
    }
};

TEST_F(StateRequestTest, SendsTheApplicationsState) {
    const struct {
        const char *state;
        const char *received;
        bool inside;
    } rows[] = {{"{\"volume\":3}", "{\"volume\":3}", true},
                {"later", "later", false},
                {"", "", false},
                {nullptr, "null", true}};
    ASSERT_EQ(callback.registerState(), NELVO_ERROR_NONE);
    std::uint64_t requestId = 40;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.received);
        callback.then = [&](void *, bundle *) {
            if (row.inside) {
                EXPECT_EQ(complete(row.state), NELVO_ERROR_NONE);
            }
        };
        requestState(++requestId);
        if (!row.inside) {
            EXPECT_EQ(complete(row.state), NELVO_ERROR_NONE);
        }
        device.advance();
        ASSERT_FALSE(client.answers.empty());
        EXPECT_EQ(answer().response.requestId, requestId);
        EXPECT_EQ(answer().response.fields, success("appContext", row.received));
        EXPECT_EQ(host_sim_timer_count(), timers);
    }
    EXPECT_EQ(answerCount(), 4);
}

TEST_F(StateRequestTest, RefusesAtOnceWithoutACallback) {
    requestState(12);
    ASSERT_EQ(answerCount(), 1);
    EXPECT_EQ(answer().response.fields, failure("appContext", NOT_REGISTERED));
    EXPECT_EQ(answer().response.requestId, 12u);
    EXPECT_EQ(host_sim_timer_count(), timers);
    EXPECT_EQ(
        device.countLog(DLOG_ERROR, "receiveRequest", "There is no app state request callback."),
        1);
    EXPECT_EQ(device.countLog(DLOG_DEBUG, "receiveRequest", "message_port_send_message status: 0"),
              1);

    ASSERT_EQ(callback.registerState(), NELVO_ERROR_NONE);
    requestState();
    EXPECT_EQ(numberOf(callback.last()), 2) << "the refused request has taken a handler";
}

TEST_F(StateRequestTest, AnswersOnceAndOnlyWhilePending) {
    const struct {
        const char *when;
        std::function<void()> before;
        int returned;
        int successes;
        const char *logged;
    } moments[] = {
        {"while pending", [] {}, NELVO_ERROR_NONE, 1, "send result: 0"},
        {"a second time", [this] { complete(); }, NELVO_ERROR_OPERATION_FAILED, 1,
         "App State result recieved after timeout, discarding"},
        {"after 30 seconds", [this] { device.advance(30.001); }, NELVO_ERROR_NONE, 0,
         "Couldn't find requestId corresponding to actionHandler"},
        {"after an action request", [this] { client.request("other", 8); }, NELVO_ERROR_NONE, 0,
         "Couldn't find requestId corresponding to actionHandler"},
        {"after the callback was removed", [] { nelvo_unset_app_state_request_cb(); },
         NELVO_ERROR_NONE, 1, "send result: 0"},
        {"after the client has gone", [this] { client.disconnect(); }, NELVO_ERROR_NONE, 0,
         "response error: NotConnectedSocketException"},
    };
    for (const auto &moment : moments) {
        SCOPED_TRACE(moment.when);
        ASSERT_TRUE(client.join());
        ASSERT_EQ(callback.registerState(), NELVO_ERROR_NONE);
        client.answers.clear();
        requestState(7);
        moment.before();
        device.clearLog();
        EXPECT_EQ(complete(), moment.returned);
        EXPECT_THAT(device.logTexts(), testing::Contains(testing::HasSubstr(moment.logged)));
        device.advance();
        int successes = 0;
        for (const auto &each : client.answers)
            successes += each.response.succeeded();
        EXPECT_EQ(successes, moment.successes);
    }
}

TEST_F(StateRequestTest, FailsTheRequestAfterThirtySecondsOnce) {
    ASSERT_EQ(callback.registerState(), NELVO_ERROR_NONE);
    requestState(9);
    device.advance(29.999);
    EXPECT_EQ(answerCount(), 0);
    device.clearLog();
    device.advance(0.002);
    ASSERT_EQ(answerCount(), 1);
    EXPECT_EQ(answer().response.fields, failure("appContext", TIMED_OUT));
    EXPECT_EQ(answer().response.requestId, 9u);
    EXPECT_THAT(device.logTexts(),
                ElementsAre("E _appStateRequestCompleteCheckCb: App state request execution timed "
                            "out. Failed to execute action.",
                            "I sendResponse: App Id demo.app"));
    device.advance(100);
    EXPECT_EQ(answerCount(), 1);
}

TEST_F(StateRequestTest, KeepsTheLatestRegistration) {
    Callback other;
    const std::string set = "App State Request cb has been set";
    const std::string unset = "App State Request Cb has been unset";
    const struct {
        const char *what;
        std::function<int()> change;
        int calls, otherCalls;
        std::vector<std::string> log;
    } rows[] = {
        {"registered",
         [&] { return callback.registerState(); },
         1,
         0,
         {"D setAppStateRequestCb: " + set, "D setAppStateRequestCb: " + set}},
        {"replaced",
         [&] { return other.registerState(); },
         0,
         1,
         {"D setAppStateRequestCb: " + set, "D setAppStateRequestCb: " + set}},
        {"null callback",
         [] { return nelvo_set_app_state_request_cb(nullptr, nullptr); },
         0,
         0,
         {"D unsetAppStateRequestCb: " + unset, "D setAppStateRequestCb: " + set,
          "D setAppStateRequestCb: " + set}},
        {"removed again",
         [] { return nelvo_unset_app_state_request_cb(); },
         0,
         0,
         {"D unsetAppStateRequestCb: " + unset, "D unsetAppStateRequestCb: " + unset}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        device.clearLog();
        EXPECT_EQ(row.change(), NELVO_ERROR_NONE);
        EXPECT_EQ(device.logTexts(), row.log);
        callback.handlers.clear();
        other.handlers.clear();
        requestState();
        EXPECT_EQ(callback.count(), row.calls);
        EXPECT_EQ(other.count(), row.otherCalls);
    }
}

TEST_F(StateRequestTest, LogsACompletionStepByStep) {
    ASSERT_EQ(callback.registerState(), NELVO_ERROR_NONE);
    requestState();
    device.clearLog();
    complete("fine");
    EXPECT_THAT(device.logTexts(),
                ElementsAre("D completeAppStateRequest: App result:",
                            "D completeAppStateRequest: _nelvoClientAppId : demo.client",
                            "D completeAppStateRequest: App Context:",
                            "D completeAppStateRequest: fine", "I sendResponse: App Id demo.app",
                            "D completeAppStateRequest: [NelvoClient <- App] send result: 0"));
}

} // namespace
} // namespace nelvo
