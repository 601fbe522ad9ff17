// SPDX-License-Identifier: Apache-2.0
// What both kinds of request have in common, and where they differ.
#include "driven_application.h"

#include "client_wire.h"
#include "nelvo_common_data.h"
#include "rpc_peers.h"

namespace nelvo {
namespace {

constexpr int NONE = NELVO_ERROR_NONE;
constexpr int FAILED = NELVO_ERROR_OPERATION_FAILED;

struct Kind {
    const char *name;
    const char *actionId;
    const char *resultKey;
    const char *timedOut; // the message that the client gets
    int (*setCallback)(Callback *);
    int (*unsetCallback)();
    int (*complete)(void *, const char *);
    std::vector<std::string> setLog, unsetLog, nullLog;
    const char *noData; // what the time-out without data logs
    int repeated;       // what a second completion returns
    int unreached;      // what a completion returns when the client can't be reached
};

int setAction(Callback *callback) {
    return nelvo_set_action_execution_cb("play", callback ? Callback::action : nullptr, callback);
}
int unsetAction() {
    return nelvo_unset_action_execution_cb("play");
}
int setState(Callback *callback) {
    return nelvo_set_app_state_request_cb(callback ? Callback::state : nullptr, callback);
}

const std::string ACTION_SET = "D setActionExecutionCb: 'play' Action Execution cb has been set";
const std::string ACTION_UNSET =
    "D unsetExecuteActionCb: 'play' Action Execution cb has been unset";
const std::string STATE_SET = "D setAppStateRequestCb: App State Request cb has been set";
const std::string STATE_UNSET = "D unsetAppStateRequestCb: App State Request Cb has been unset";

const Kind KINDS[] = {
    {"Action",
     "play",
     "result",
     "Action execution request timed out",
     setAction,
     unsetAction,
     nelvo_complete_action_execution,
     {ACTION_SET},
     {ACTION_UNSET},
     {ACTION_UNSET, ACTION_SET},
     "E _completeActionExecutionCheckCb: Action Request Pointer is null",
     NONE,
     FAILED},
    {"State",
     "getAppContext",
     "appContext",
     "App state request execution timed out",
     setState,
     nelvo_unset_app_state_request_cb,
     nelvo_complete_app_state_request,
     {STATE_SET, STATE_SET},
     {STATE_UNSET, STATE_UNSET},
     {STATE_UNSET, STATE_SET, STATE_SET},
     "E _appStateRequestCompleteCheckCb: State Request is null",
     FAILED,
     NONE},
};

void PrintTo(const Kind &kind, std::ostream *out) {
    *out << kind.name;
}

class RequestTest : public DrivenApplication, public testing::WithParamInterface<Kind> {
protected:
    void registerCallback() { ASSERT_EQ(kind.setCallback(&callback), NONE); }
    void request(std::uint64_t id = 7) { client.request(kind.actionId, id); }
    int complete(const char *text = "done") { return kind.complete(callback.last(), text); }

    const Kind &kind = GetParam();
    const Kind &otherKind = KINDS[kind.complete == KINDS[0].complete ? 1 : 0];
};

INSTANTIATE_TEST_SUITE_P(Of, RequestTest, testing::ValuesIn(KINDS),
                         [](const auto &row) { return row.param.name; });

TEST_P(RequestTest, IsAnsweredWithWhatTheApplicationReports) {
    const struct {
        const char *result, *received;
        bool inside; // reported from inside the callback
    } rows[] = {
        {"done", "done", true}, {"late", "late", false}, {"", "", true}, {nullptr, "null", false}};
    const testkit::peers::Server server("other"); // a port of the application's own changes nothing
    registerCallback();
    std::uint64_t id = 0xfedcba9876543210;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.received);
        int returned = 1;
        callback.then = [&](void *, bundle *) {
            if (row.inside)
                returned = complete(row.result);
        };
        request(++id);
        if (!row.inside)
            returned = complete(row.result);
        EXPECT_EQ(returned, NONE);
        device.advance();
        ASSERT_FALSE(client.answers.empty());
        EXPECT_EQ(answer().sender, "demo.app");
        EXPECT_EQ(answer().requestId, id);
        EXPECT_EQ(answer().fields, success(kind.resultKey, row.received));
        EXPECT_EQ(host_sim_timer_count(), timers);
    }
    EXPECT_EQ(answerCount(), 4);
}

TEST_P(RequestTest, IsAnsweredOnceAndOnlyWhilePending) {
    const std::string forgotten = "Couldn't find requestId corresponding to actionHandler 2";
    const char *overtaken = "a newer request had overtaken it";
    const char *stopped = "the library had been stopped since";
    const std::string gone = "response error: NotConnectedSocketException";
    const struct {
        const char *when;
        std::function<void()> before;
        int returned;
        int successes;           // success answers that the client has in the end
        std::string logged;      // empty: no error
        std::string warned = ""; // by the test kit; empty: nothing
    } moments[] = {
        {"while pending", [] {}, NONE, 1, ""},
        {"a second time", [this] { complete(); }, kind.repeated, 1,
         kind.repeated == NONE ? forgotten : "App State result recieved after timeout, discarding",
         "it had been completed before"},
        {"after 30 seconds", [this] { device.advance(30.001); }, NONE, 0, forgotten,
         "it had timed out"},
        {"after another action", [this] { client.request("other", 8); }, NONE, 0, forgotten,
         overtaken},
        {"after a state request", [this] { client.request("getAppContext", 8); }, NONE, 0,
         forgotten, overtaken},
        {"after the callback was removed", [this] { kind.unsetCallback(); }, NONE, 1, ""},
        {"after the client has gone", [this] { client.disconnect(); }, kind.unreached, 0, gone},
        {"after UnsetCB", [this] { client.unsetCb(); }, kind.unreached, 0,
         "demo.client has no response callback"},
        {"after a restart", [] { restart(); }, NONE, 0, forgotten, stopped},
        {"while stopped", [] { nelvo_deinitialize(); }, FAILED, 0, "Nelvo is not initialized",
         stopped},
    };
    for (const auto &moment : moments) {
        SCOPED_TRACE(moment.when);
        restart();
        ASSERT_TRUE(client.join());
        client.request(otherKind.actionId, 6); // nobody registers it: it takes no handler
        registerCallback();
        client.answers.clear();
        request();
        void *handler = callback.last();
        moment.before();
        device.clearLog();
        device.takeWarnings();
        EXPECT_EQ(kind.complete(handler, "done"), moment.returned);
        const auto warnings = device.takeWarnings();
        ASSERT_EQ(warnings.size(), moment.warned.empty() ? 0u : 1u);
        EXPECT_THAT(warnings.empty() ? "" : warnings[0], testing::EndsWith(moment.warned));
        const auto errors = device.logTexts(DLOG_ERROR);
        ASSERT_EQ(errors.size(), moment.logged.empty() ? 0u : 1u);
        EXPECT_THAT(errors.empty() ? "" : errors[0], testing::EndsWith(moment.logged));
        device.advance();
        int successes = 0;
        for (const auto &each : client.answers)
            successes += each.succeeded();
        EXPECT_EQ(successes, moment.successes);
    }
}

TEST_P(RequestTest, FailsAfterThirtySecondsOnce) {
    registerCallback();
    request(77);
    device.advance(29.999);
    EXPECT_EQ(answerCount(), 0);
    device.advance(0.002);
    ASSERT_EQ(answerCount(), 1);
    EXPECT_EQ(answer().fields, failure(kind.resultKey, kind.timedOut));
    EXPECT_EQ(answer().requestId, 77u);
    device.advance(100);
    EXPECT_EQ(answerCount(), 1);
}

TEST_P(RequestTest, IsNotTimedOutByATimerThatIsNotSet) {
    registerCallback();
    testkit::hooks().timer = [](Ecore_Task_Cb expired, void *data) {
        EXPECT_EQ(expired(nullptr), ECORE_CALLBACK_CANCEL);
        EXPECT_EQ(expired(data), ECORE_CALLBACK_CANCEL);
    };
    request();
    testkit::hooks() = {};
    EXPECT_EQ(device.logTexts(DLOG_ERROR), std::vector<std::string>{kind.noData});
    EXPECT_EQ(complete(), NONE);
    device.advance();
    ASSERT_EQ(answerCount(), 1);
    EXPECT_TRUE(answer().succeeded());
}

TEST_P(RequestTest, IsNotAnsweredUnderAnotherId) {
    registerCallback();
    request(7);
    NelvoCommonData &common = *NelvoCommonData::getInstance();
    common._requestId = 8;
    EXPECT_EQ(complete(), NONE);
    EXPECT_THAT(
        device.logTexts().back(),
        testing::MatchesRegex("D complete.*: Discarding response recieved for old requestId 7"));
    EXPECT_EQ(common._requestIdMap.size(), kind.repeated == NONE ? 0u : 1u);
    EXPECT_EQ(host_sim_timer_count(), timers + 1) << "the time goes on";
    EXPECT_EQ(answerCount(), 0);
}

TEST_P(RequestTest, IsAnsweredOnceThroughACallbackForOneUse) {
    ASSERT_EQ(testkit::setCb(client, {1, 1, true}), 0);
    registerCallback();
    for (const int wanted : {NONE, kind.unreached}) {
        request();
        EXPECT_EQ(complete(), wanted);
    }
    EXPECT_EQ(
        device.countLog(DLOG_ERROR, "sendResponse", "response error: InvalidCallbackException"), 1);
    device.advance();
    EXPECT_EQ(answerCount(), 1);
}

TEST_P(RequestTest, ReachesTheLatestRegistration) {
    Callback other;
    const struct {
        const char *what;
        int calls, otherCalls; // of a request afterwards
        const std::vector<std::string> &log;
        std::function<int()> change;
    } rows[] = {
        {"registered", 1, 0, kind.setLog, [&] { return kind.setCallback(&callback); }},
        {"replaced", 0, 1, kind.setLog, [&] { return kind.setCallback(&other); }},
        {"removed", 0, 0, kind.unsetLog, [&] { return kind.unsetCallback(); }},
        {"removed again", 0, 0, kind.unsetLog, [&] { return kind.unsetCallback(); }},
        {"registered again", 1, 0, kind.setLog, [&] { return kind.setCallback(&callback); }},
        {"null callback", 0, 0, kind.nullLog, [&] { return kind.setCallback(nullptr); }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        device.clearLog();
        EXPECT_EQ(row.change(), NONE);
        EXPECT_EQ(device.logTexts(), row.log);
        callback.handlers.clear();
        other.handlers.clear();
        request();
        EXPECT_EQ(callback.count(), row.calls);
        EXPECT_EQ(other.count(), row.otherCalls);
    }
}

TEST_P(RequestTest, IsCompletedByItsOwnHandlerOnly) {
    registerCallback();
    request();
    auto *slots = static_cast<int *>(callback.last()) - numberOf(callback.last());
    int foreign = 2;
    void *const pointers[] = {nullptr,
                              &foreign,
                              slots - 1,
                              slots + 100,
                              reinterpret_cast<void *>(8),
                              reinterpret_cast<char *>(callback.last()) + 1};
    for (void *pointer : pointers) {
        SCOPED_TRACE(pointer);
        device.clearLog();
        char *name = nullptr;
        EXPECT_EQ(kind.complete(pointer, "x"), NELVO_ERROR_INVALID_PARAMETER);
        EXPECT_EQ(device.logTexts(DLOG_ERROR).size(), 1u);
        EXPECT_EQ(nelvo_get_action_name(pointer, &name), FAILED);
        EXPECT_EQ(device.logTexts(DLOG_ERROR).back(),
                  "E getActionName: In getActionName, entry not found");
    }
    EXPECT_EQ(otherKind.complete(callback.last(), "x"), FAILED);
    EXPECT_THAT(device.takeWarnings(), ElementsAre(testing::EndsWith("of the other kind")));
    EXPECT_EQ(complete(), NONE);
    device.advance();
    EXPECT_EQ(answerCount(), 1);
}

} // namespace
} // namespace nelvo
