// SPDX-License-Identifier: Apache-2.0
// Both kinds of request, where scripts cannot go: results that the application reports, timers that
// expire when they should not, the warnings of the test kit.
#include "driven_application.h"

#include "action_request_impl.h"
#include "nelvo_common_data.h"

namespace nelvo {
namespace {

constexpr int NONE = NELVO_ERROR_NONE;

struct Kind {
    const char *actionId;
    const char *resultKey;
    int (*complete)(void *, const char *);
    const char *noData; // what the time-out logs if it gets no data
    bool isState;
};

const Kind KINDS[] = {{"play", "result", nelvo_complete_action_execution,
                       "E _completeActionExecutionCheckCb: Action Request Pointer is null", false},
                      {"getAppContext", "appContext", nelvo_complete_app_state_request,
                       "E _appStateRequestCompleteCheckCb: State Request is null", true}};

void PrintTo(const Kind &kind, std::ostream *out) {
    *out << kind.actionId;
}

class RequestTest : public DrivenApplication, public testing::WithParamInterface<Kind> {
protected:
    void request(Callback &to, std::uint64_t id = 7) {
        ASSERT_EQ(kind.isState ? to.registerState() : to.registerAction("play"), NONE);
        client.request(kind.actionId, id);
    }
    int complete(const char *text = "done") { return kind.complete(callback.last(), text); }

    const Kind &kind = GetParam();
    const Kind &otherKind = KINDS[kind.isState ? 0 : 1];
};

INSTANTIATE_TEST_SUITE_P(Of, RequestTest, testing::ValuesIn(KINDS));

TEST_P(RequestTest, IsAnsweredWithWhatTheLatestCallbackReports) {
    Callback replaced;
    request(replaced);
    const std::pair<const char *, const char *> rows[] = {
        {"done", "done"}, {"", ""}, {nullptr, "null"}};
    std::uint64_t id = 0xfedcba9876543210;
    for (const auto &[reported, received] : rows) {
        request(callback, ++id);
        EXPECT_EQ(complete(reported), NONE);
        device.advance();
        ASSERT_FALSE(client.answers.empty());
        EXPECT_EQ(answer().requestId, id);
        EXPECT_EQ(answer().fields, success(kind.resultKey, received));
    }
    EXPECT_EQ(replaced.count(), 1);
}

TEST_P(RequestTest, IsNotTimedOutByATimerThatIsNotSet) {
    testkit::hooks().timer = [](Ecore_Task_Cb expired, void *data) {
        EXPECT_EQ(expired(nullptr), ECORE_CALLBACK_CANCEL);
        EXPECT_EQ(expired(data), ECORE_CALLBACK_CANCEL);
    };
    request(callback);
    testkit::hooks() = {};
    EXPECT_THAT(device.logTexts(DLOG_ERROR), ElementsAre(kind.noData));
    EXPECT_EQ(complete(), NONE);
    device.advance();
    ASSERT_EQ(answerCount(), 1);
    EXPECT_TRUE(answer().succeeded());
}

TEST_P(RequestTest, IsNotAnsweredUnderAnotherId) {
    request(callback, 7);
    NelvoCommonData &common = *NelvoCommonData::getInstance();
    common._requestId = 8;
    EXPECT_EQ(complete(), NONE);
    EXPECT_THAT(device.logTexts().back(),
                testing::EndsWith(": Discarding response recieved for old requestId 7"));
    EXPECT_EQ(common._requestIdMap.size(), kind.isState ? 1u : 0u) << "a state keeps its record";
    EXPECT_EQ(host_sim_timer_count(), timers + 1) << "the time-out stays set";
    EXPECT_EQ(answerCount(), 0);
}

TEST_P(RequestTest, MakesTheKitWarnOfACompletionThatIsLateOrOfTheOtherKind) {
    const char *const stopped = "the library had been stopped since";
    const char *const overtaken = "a newer request had overtaken it";
    const std::pair<std::string, std::function<void()>> rows[] = {
        {"", [] {}},
        {"it had been completed before", [this] { complete(); }},
        {"it had timed out", [this] { device.advance(30.001); }},
        {overtaken, [this] { client.request("other", 8); }},
        {overtaken, [this] { client.requestState(8); }},
        {stopped, [] { restart(); }},
        {stopped, [] { nelvo_deinitialize(); }},
        {"kept while the library was stopped and started again",
         [this] {
             restart();
             ASSERT_TRUE(client.join());
             request(callback);
             complete();
         }},
    };
    for (const auto &[warning, before] : rows) {
        SCOPED_TRACE(warning);
        restart();
        ASSERT_TRUE(client.join());
        client.request(otherKind.actionId, 6); // nobody registers it: it takes no handler
        request(callback);
        void *const handler = callback.last();
        EXPECT_EQ(otherKind.complete(handler, "x"), NELVO_ERROR_OPERATION_FAILED);
        EXPECT_THAT(device.takeWarnings(), ElementsAre(testing::EndsWith("of the other kind")));
        before();
        device.takeWarnings();
        kind.complete(handler, "done");
        const auto warnings = device.takeWarnings();
        ASSERT_EQ(warnings.size(), warning.empty() ? 0u : 1u);
        EXPECT_THAT(warnings.empty() ? "" : warnings[0], testing::EndsWith(warning));
    }
}

class ActionRequestTest : public DrivenApplication {};

TEST_F(ActionRequestTest, StopsWaitingWhenATickFindsSomethingMissing) {
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
    const std::pair<const char *, std::function<void *()>> rows[] = {
        // the error that is logged, and what returns the data of the tick
        {"actionPtr is null", [] { return nullptr; }},
        {"Nelvo Client app id is null", [&] { return clientId.clear(), self; }},
        {"ActionRequest _actionExecutionFireTimer is null",
         [&] { return clientId = "demo.client", self; }},
        {"ActionRequest bundle data is null",
         [&] {
             client.request("late");
             const int waiting = host_sim_timer_count();
             ActionRequestImpl::getInstance()->receiveRequest("demo.client", "late", nullptr);
             EXPECT_EQ(host_sim_timer_count(), waiting) << "there is no second wait";
             return self;
         }},
    };
    for (const auto &[error, prepare] : rows) {
        void *const data = prepare();
        device.clearLog();
        EXPECT_EQ(tick(data), ECORE_CALLBACK_CANCEL);
        EXPECT_THAT(device.logTexts(DLOG_ERROR),
                    ElementsAre("E _actionExecutionFireCb: " + std::string(error)));
    }
    device.advance(1);
    EXPECT_EQ(host_sim_timer_count(), timers);
    EXPECT_EQ(answerCount(), 0);
}

} // namespace
} // namespace nelvo
