// SPDX-License-Identifier: Apache-2.0 Both kinds of request, where a script of play.cpp cannot go:
// foreign handlers, a copy's content, timers that the platform fires when it should not, the kit's
// warnings.
#include "driven_application.h"

#include <cstring>

#include "action_request_impl.h"
#include "client_wire.h"
#include "nelvo_common_data.h"

namespace nelvo {
namespace {

constexpr int NONE = NELVO_ERROR_NONE;
constexpr int FAILED = NELVO_ERROR_OPERATION_FAILED;

struct Kind {
    const char *name;
    const char *actionId;
    const char *resultKey;
    int (*setCallback)(Callback *);
    int (*complete)(void *, const char *);
    const char *noData;      // what the time-out logs when it gets no data
    std::size_t keptRecords; // after a completion for another request id
};

const Kind KINDS[] = {
    {"Action", "play", "result",
     [](Callback *callback) {
         return nelvo_set_action_execution_cb("play", callback ? Callback::action : nullptr,
                                              callback);
     },
     nelvo_complete_action_execution,
     "E _completeActionExecutionCheckCb: Action Request Pointer is null", 0},
    {"State", "getAppContext", "appContext",
     [](Callback *callback) {
         return nelvo_set_app_state_request_cb(callback ? Callback::state : nullptr, callback);
     },
     nelvo_complete_app_state_request, "E _appStateRequestCompleteCheckCb: State Request is null",
     1},
};

void PrintTo(const Kind &kind, std::ostream *out) {
    *out << kind.name;
}

class RequestTest : public DrivenApplication, public testing::WithParamInterface<Kind> {
protected:
    void request(std::uint64_t id = 7) {
        ASSERT_EQ(kind.setCallback(&callback), NONE);
        client.request(kind.actionId, id);
    }
    int complete(const char *text = "done") { return kind.complete(callback.last(), text); }

    const Kind &kind = GetParam();
    const Kind &otherKind = KINDS[kind.complete == KINDS[0].complete ? 1 : 0];
};

INSTANTIATE_TEST_SUITE_P(Of, RequestTest, testing::ValuesIn(KINDS),
                         [](const auto &row) { return row.param.name; });

TEST_P(RequestTest, IsAnsweredWithWhatTheLatestCallbackReports) {
    Callback replaced;
    ASSERT_EQ(kind.setCallback(&replaced), NONE);
    const std::pair<const char *, const char *> rows[] = {
        {"done", "done"}, {"", ""}, {nullptr, "null"}};
    std::uint64_t id = 0xfedcba9876543210;
    for (const auto &[reported, received] : rows) {
        request(++id);
        EXPECT_EQ(complete(reported), NONE);
        device.advance();
        ASSERT_FALSE(client.answers.empty());
        EXPECT_EQ(answer().requestId, id);
        EXPECT_EQ(answer().fields, success(kind.resultKey, received));
    }
    EXPECT_EQ(replaced.count(), 0);
}

TEST_P(RequestTest, IsNotTimedOutByATimerThatIsNotSet) {
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
    request(7);
    NelvoCommonData &common = *NelvoCommonData::getInstance();
    common._requestId = 8;
    EXPECT_EQ(complete(), NONE);
    EXPECT_THAT(
        device.logTexts().back(),
        testing::MatchesRegex("D complete.*: Discarding response recieved for old requestId 7"));
    EXPECT_EQ(common._requestIdMap.size(), kind.keptRecords);
    EXPECT_EQ(host_sim_timer_count(), timers + 1) << "the time goes on";
    EXPECT_EQ(answerCount(), 0);
}

TEST_P(RequestTest, IsToldByTheKitWhenItIsCompletedTooLate) {
    const char *const stopped = "the library had been stopped since";
    const char *const overtaken = "a newer request had overtaken it";
    const struct {
        const char *warning; // empty: none
        std::function<void()> before;
    } rows[] = {
        {"", [] {}},
        {"it had been completed before", [this] { complete(); }},
        {"it had timed out", [this] { device.advance(30.001); }},
        {overtaken, [this] { client.request("other", 8); }},
        {overtaken, [this] { client.request("getAppContext", 8); }},
        {stopped, [] { restart(); }},
        {stopped, [] { nelvo_deinitialize(); }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.warning);
        restart();
        ASSERT_TRUE(client.join());
        client.request(otherKind.actionId, 6); // nobody registers it: it takes no handler
        request();
        void *const handler = callback.last();
        row.before();
        device.takeWarnings();
        kind.complete(handler, "done");
        const auto warnings = device.takeWarnings();
        ASSERT_EQ(warnings.size(), *row.warning ? 1u : 0u);
        EXPECT_THAT(warnings.empty() ? "" : warnings[0], testing::EndsWith(row.warning));
    }
}

class ActionRequestTest : public DrivenApplication {};

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
    testkit::hooks() = {};

    std::string &clientId = NelvoCommonData::getInstance()->_nelvoClientAppId;
    const struct {
        const char *logged;
        std::function<void *()> prepare; // the tick's data
    } rows[] = {
        {"actionPtr is null", [] { return nullptr; }},
        {"Nelvo Client app id is null", [&] { return clientId.clear(), self; }},
        {"ActionRequest _actionExecutionFireTimer is null",
         [&] { return clientId = "demo.client", self; }},
        {"ActionRequest bundle data is null",
         [&] {
             device.advance(0.02); // the platform's own tick, which ends the timer
             restart();
             return self;
         }},
    };
    for (const auto &row : rows) {
        void *const data = row.prepare();
        device.clearLog();
        EXPECT_EQ(tick(data), ECORE_CALLBACK_CANCEL);
        EXPECT_THAT(device.logTexts(DLOG_ERROR),
                    ElementsAre("E _actionExecutionFireCb: " + std::string(row.logged)));
    }
    EXPECT_EQ(host_sim_timer_count(), 0);
    EXPECT_EQ(answerCount(), 0);
}

TEST_F(ActionRequestTest, StartsNoSecondWait) {
    client.request("late");
    const int waiting = host_sim_timer_count();
    ActionRequestImpl::getInstance()->receiveRequest("demo.client", "late", nullptr);
    EXPECT_EQ(host_sim_timer_count(), waiting);
    device.advance(1);
    EXPECT_THAT(device.logTexts(DLOG_ERROR),
                ElementsAre("E _actionExecutionFireCb: ActionRequest bundle data is null"));
    EXPECT_EQ(answerCount(), 0);
}

} // namespace
} // namespace nelvo
