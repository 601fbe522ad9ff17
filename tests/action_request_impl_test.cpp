// SPDX-License-Identifier: Apache-2.0
#include "driven_application.h"

#include <cstring>

namespace nelvo {
namespace {

constexpr const char *NOT_REGISTERED = "Action Execution callback not registered";
constexpr const char *TIMED_OUT = "Action execution request timed out";

class ActionRequestTest : public DrivenApplication {
protected:
    void registerPlay() { ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE); }
    int complete(const char *result = "done") {
        return nelvo_complete_action_execution(callback.last(), result);
    }
};

TEST_F(ActionRequestTest, SendsTheApplicationsResult) {
    const struct {
        const char *result;
        const char *received;
        bool inside; // reported from inside the callback
    } rows[] = {
        {"done", "done", true}, {"done", "done", false}, {"", "", true}, {nullptr, "null", false}};
    registerPlay();
    std::uint64_t requestId = 0xfedcba9876543210;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.received);
        callback.then = [&](void *, bundle *) {
            if (row.inside) {
                EXPECT_EQ(complete(row.result), NELVO_ERROR_NONE);
            }
        };
        client.request("play", ++requestId, "{\"speed\":2}");
        ASSERT_EQ(callback.params.back(), "{\"speed\":2}");
        if (!row.inside) {
            ASSERT_EQ(complete(row.result), NELVO_ERROR_NONE);
        }
        device.advance();
        ASSERT_FALSE(client.answers.empty());
        EXPECT_EQ(answer().sender, "demo.app");
        EXPECT_EQ(answer().response.requestId, requestId);
        EXPECT_EQ(answer().response.fields, success("result", row.received));
        EXPECT_EQ(host_sim_timer_count(), timers);
    }
    EXPECT_EQ(answerCount(), 4);
}

struct Moment {
    const char *when;
    std::function<void()> before;
    int returned;
    int successes; // success answers that the client has in the end
    const char *logged;
};

TEST_F(ActionRequestTest, AnswersOnceAndOnlyWhilePending) {
    const Moment moments[] = {
        {"while pending", [] {}, NELVO_ERROR_NONE, 1, "Response success"},
        {"a second time", [this] { complete(); }, NELVO_ERROR_NONE, 1,
         "Couldn't find requestId corresponding to actionHandler"},
        {"after 30 seconds", [this] { device.advance(30.001); }, NELVO_ERROR_NONE, 0,
         "Couldn't find requestId corresponding to actionHandler"},
        {"after another action", [this] { client.request("other", 8); }, NELVO_ERROR_NONE, 0,
         "Couldn't find requestId corresponding to actionHandler"},
        {"after a state request", [this] { client.request("getAppContext", 8); }, NELVO_ERROR_NONE,
         0, "Couldn't find requestId corresponding to actionHandler"},
        {"after the client has gone", [this] { client.disconnect(); }, NELVO_ERROR_OPERATION_FAILED,
         0, "response error: NotConnectedSocketException"},
        {"after UnsetCB", [this] { client.unsetCb(); }, NELVO_ERROR_OPERATION_FAILED, 0,
         "demo.client has no response callback"},
        {"after a restart",
         [] {
             nelvo_deinitialize();
             nelvo_initialize();
         },
         NELVO_ERROR_NONE, 0, "Couldn't find requestId corresponding to actionHandler"},
    };
    for (const Moment &moment : moments) {
        SCOPED_TRACE(moment.when);
        ASSERT_TRUE(client.join());
        registerPlay();
        client.answers.clear();
        client.request("play", 7);
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

TEST_F(ActionRequestTest, RefusesWhatIsNoActionHandlerUnread) {
    registerPlay();
    client.request("play");
    auto *slots = static_cast<int *>(callback.last()) - numberOf(callback.last());
    int foreign = 2;
    void *const pointers[] = {nullptr,
                              &foreign,
                              slots - 1,
                              slots + 100,
                              reinterpret_cast<char *>(callback.last()) + 1,
                              reinterpret_cast<void *>(8)};
    for (void *pointer : pointers) {
        SCOPED_TRACE(pointer);
        char *name = nullptr;
        device.clearLog();
        EXPECT_EQ(nelvo_complete_action_execution(pointer, "x"), NELVO_ERROR_INVALID_PARAMETER);
        EXPECT_EQ(nelvo_complete_app_state_request(pointer, "x"), NELVO_ERROR_INVALID_PARAMETER);
        EXPECT_EQ(device.logTexts(DLOG_ERROR).size(), 2u);
        EXPECT_EQ(nelvo_get_action_name(pointer, &name), NELVO_ERROR_OPERATION_FAILED);
        EXPECT_EQ(device.logTexts(DLOG_ERROR).back(),
                  "E getActionName: In getActionName, entry not found");
    }
    EXPECT_EQ(complete(), NELVO_ERROR_NONE);
}

TEST_F(ActionRequestTest, FailsTheRequestAfterThirtySecondsOnce) {
    registerPlay();
    client.request("play", 77);
    device.advance(29.999);
    EXPECT_EQ(answerCount(), 0);
    device.clearLog();
    device.advance(0.002);
    ASSERT_EQ(answerCount(), 1);
    EXPECT_EQ(answer().response.fields, failure("result", TIMED_OUT));
    EXPECT_EQ(answer().response.requestId, 77u);
    EXPECT_THAT(device.logTexts(),
                ElementsAre("E _completeActionExecutionCheckCb: action execution timed out. Failed "
                            "to execute action.",
                            "I sendResponse: App Id demo.app",
                            "D _completeActionExecutionCheckCb: send reponse result: 0"));
    char *name = nullptr;
    EXPECT_EQ(nelvo_get_action_name(callback.last(), &name), NELVO_ERROR_OPERATION_FAILED);
    device.advance(100);
    EXPECT_EQ(answerCount(), 1);
}

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
        EXPECT_EQ(answer().response.fields,
                  row.calledAt > 0 ? success("result", "done") : failure("result", NOT_REGISTERED));
        EXPECT_EQ(nelvo_unset_action_execution_cb("late"), NELVO_ERROR_NONE);
        EXPECT_EQ(host_sim_timer_count(), timers);
    }
}

TEST_F(ActionRequestTest, DropsAWaitingRequestForANewerOne) {
    registerPlay();
    client.request("late", 1);
    client.request("later", 2);
    device.advance(0.03);
    client.request("play", 3);
    ASSERT_EQ(callback.registerAction("late"), NELVO_ERROR_NONE);
    device.advance(1);
    EXPECT_EQ(callback.count(), 1);
    EXPECT_EQ(complete(), NELVO_ERROR_NONE);
    device.advance(100);
    ASSERT_EQ(answerCount(), 1);
    EXPECT_EQ(answer().response.requestId, 3u);
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

TEST_F(ActionRequestTest, KeepsTheLatestRegistrationOfEachAction) {
    Callback other;
    const struct {
        const char *what;
        std::function<int()> change;
        int calls, otherCalls; // of a request for "play" afterwards
        std::vector<std::string> log;
    } rows[] = {
        {"registered",
         [&] { return callback.registerAction("play"); },
         1,
         0,
         {"D setActionExecutionCb: 'play' Action Execution cb has been set"}},
        {"another action",
         [&] { return other.registerAction("pause"); },
         1,
         0,
         {"D setActionExecutionCb: 'pause' Action Execution cb has been set"}},
        {"replaced",
         [&] { return other.registerAction("play"); },
         0,
         1,
         {"D setActionExecutionCb: 'play' Action Execution cb has been set"}},
        {"removed",
         [] { return nelvo_unset_action_execution_cb("play"); },
         0,
         0,
         {"D unsetExecuteActionCb: 'play' Action Execution cb has been unset"}},
        {"removed again",
         [] { return nelvo_unset_action_execution_cb("play"); },
         0,
         0,
         {"D unsetExecuteActionCb: 'play' Action Execution cb has been unset"}},
        {"registered again",
         [&] { return callback.registerAction("play"); },
         1,
         0,
         {"D setActionExecutionCb: 'play' Action Execution cb has been set"}},
        {"null callback",
         [] { return nelvo_set_action_execution_cb("play", nullptr, nullptr); },
         0,
         0,
         {"D unsetExecuteActionCb: 'play' Action Execution cb has been unset",
          "D setActionExecutionCb: 'play' Action Execution cb has been set"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        device.clearLog();
        EXPECT_EQ(row.change(), NELVO_ERROR_NONE);
        EXPECT_EQ(device.logTexts(), row.log);
        callback.handlers.clear();
        other.handlers.clear();
        client.request("play");
        EXPECT_EQ(callback.count(), row.calls);
        EXPECT_EQ(other.count(), row.otherCalls);
    }
}

TEST_F(ActionRequestTest, LogsARequestStepByStep) {
    registerPlay();
    device.clearLog();
    client.request("play");
    complete("fine");
    auto lines = device.logTexts();
    ASSERT_EQ(lines.size(), 11u);
    EXPECT_THAT(lines[5], testing::StartsWith("D receiveRequest: Found execute action Id: play  "
                                              "Callback: 0x"));
    lines.erase(lines.begin() + 5);
    EXPECT_THAT(lines,
                ElementsAre("I Send: Call stub Send",
                            "I isPermittedSender: res_path : /usr/share/nelvo/allow_list.dat",
                            "D isPermittedSender: allow_list.dat file not present, allowing "
                            "all apps",
                            "I Send: Call stub Sender demo.client",
                            "D executeRequest: Action Execution request recieved",
                            "D completeActionExecution: _nelvoClientAppId : demo.client",
                            "D completeActionExecution: Action result:",
                            "D completeActionExecution: fine", "I sendResponse: App Id demo.app",
                            "D completeActionExecution: Response success"));
}

} // namespace
} // namespace nelvo
