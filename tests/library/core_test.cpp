// SPDX-License-Identifier: Apache-2.0
// The core: the version gate, start and stop, dispatch, the shared request data, exceptions.
#include "driven_application.h"

#include <cstdlib>
#include <stdexcept>

#include "action_request_impl.h"
#include "log.h"
#include "nelvo_common_data.h"
#include "response.h"
#include "state_request_impl.h"

namespace nelvo {
namespace {

constexpr int NONE = NELVO_ERROR_NONE;
constexpr int FAILED = NELVO_ERROR_OPERATION_FAILED;
const std::string KEY = "http://developer.tizen.org/tizen/metadata/nelvo/sdk/version";

std::string metadata(const std::string &key, const std::string &value) {
    return "<metadata key=\"" + key + "\" value=\"" + value + "\"/>";
}

TEST(VersionGateTest, LogsEveryMetadataEntryWithThePrefix) {
    testkit::Simulation device;
    device.setManifest("<manifest><ui-application appid=\"demo.app\">" + metadata("a", "b") +
                       metadata(KEY, "1.0") + "</ui-application></manifest>");
    nelvo_deinitialize();
    EXPECT_THAT(device.logTexts(),
                ElementsAre("D getAppSdkVersion: AppId = demo.app",
                            "D _nelvo_metadata_cb: metadata_key[a] metadata_value[b]",
                            "D _nelvo_metadata_cb: metadata_key[" + KEY + "] metadata_value[1.0]",
                            "D getAppSdkVersion: AppSdkVersion 1.0",
                            "E deinitialize: NelvoImpl is not initialized. Please initialize at "
                            "first."));
    EXPECT_THAT(device.log().front().text,
                testing::MatchesRegex("v1\\.0-beta\\.1\\.4 :  [0-9]+ getAppSdkVersion\\(\\): AppId "
                                      "= demo\\.app"));
}

TEST(CoreTest, RefusesEverythingWhileNotInitialised) {
    testkit::Simulation device;
    Callback callback;
    int slot = 0;
    char *name = reinterpret_cast<char *>(&slot);
    const std::pair<const char *, int> rows[] = {
        {"setAppStateRequestCb", callback.registerState()},
        {"unsetAppStateRequestCb", nelvo_unset_app_state_request_cb()},
        {"completeAppStateRequest", nelvo_complete_app_state_request(&slot, "x")},
        {"setActionExcutionCb", callback.registerAction("play")},
        {"unsetExecuteActionCb", nelvo_unset_action_execution_cb("play")},
        {"completeActionExecution", nelvo_complete_action_execution(&slot, "x")}};
    for (const auto &[function, returned] : rows) {
        EXPECT_EQ(returned, FAILED) << function;
        EXPECT_EQ(device.countLog(DLOG_ERROR, function, "Nelvo is not initialized"), 1) << function;
    }
    EXPECT_EQ(nelvo_set_action_execution_cb(nullptr, Callback::action, nullptr),
              NELVO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(nelvo_unset_action_execution_cb(nullptr), NELVO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(nelvo_get_action_name(&slot, nullptr), NELVO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(device.countLog(DLOG_ERROR, "nelvo_get_action_name", "action_id is null"), 1);
    EXPECT_EQ(nelvo_get_action_name(&slot, &name), FAILED);
    EXPECT_EQ(name, nullptr);

    ASSERT_EQ(nelvo_initialize(), NONE);
    EXPECT_EQ(nelvo_complete_action_execution(&slot, "x"), FAILED);
    EXPECT_EQ(nelvo_complete_app_state_request(&slot, "x"), FAILED);
    EXPECT_EQ(nelvo_complete_app_state_request(nullptr, "x"), NELVO_ERROR_INVALID_PARAMETER);
    for (const char *function : {"completeActionExecution", "completeAppStateRequest"})
        EXPECT_EQ(device.countLog(DLOG_ERROR, function, "Nelvo Client is not connected"), 1);
    EXPECT_EQ(sendResponse(createSuccessResponse("result", "x")), FAILED);
    EXPECT_EQ(device.countLog(DLOG_ERROR, "sendResponse", "Nelvo Client is not connected"), 1);
    EXPECT_EQ(device.takeWarnings().size(), 2u); // of the two completions before the start
    nelvo_deinitialize();
    EXPECT_EQ(testkit::liveHandles(), testkit::NO_HANDLES);
}

TEST(CoreTest, BeginsItsSharedDataAnewWithEachStart) {
    testkit::Simulation device;
    NelvoCommonData &data = *NelvoCommonData::getInstance();
    EXPECT_EQ(data._currentActionHandler, 0);
    EXPECT_EQ(data._requestId, 0u);
    for (int round = 0; round < 2; ++round) {
        nelvo_initialize();
        EXPECT_EQ(data._currentActionHandler, 1);
        EXPECT_EQ(data._requestId, ~0ull);
        data._requestIdMap[2] = {"old", 1};
        EXPECT_EQ(data.takeActionHandler("new"), 2);
        EXPECT_EQ(data._requestIdMap[2].first, "new");
        data._requestId = 5;
        nelvo_deinitialize();
        EXPECT_EQ(data._currentActionHandler, 0);
        EXPECT_EQ(data._requestId, ~0ull);
        data._requestId = 5;
    }
    EXPECT_EQ(data.initialize(), 0);
    EXPECT_EQ(data.deinitialize(), 0);
    EXPECT_EQ(ActionRequestImpl::getInstance()->deinitialize(), NONE);
    EXPECT_EQ(StateRequestImpl::getInstance()->initialize(), NONE);
    EXPECT_EQ(StateRequestImpl::getInstance()->deinitialize(), NONE);
}

TEST(ResponseTest, AddsItsEntriesInTheirOrder) {
    const std::pair<bundle *, const char *> rows[] = {
        {createSuccessResponse("result", "x"), "requestId result status_code "},
        {createFailureResponse("appContext", "x"), "requestId status_msg status_code appContext "}};
    for (const auto &[response, wanted] : rows) {
        std::string keys; // the test kit shows the last entry first
        const auto append = [](const char *key, const int, const bundle_keyval_t *, void *to) {
            *static_cast<std::string *>(to) += std::string(key) + " ";
        };
        bundle_foreach(response, append, &keys);
        EXPECT_EQ(keys, wanted);
        bundle_free(response);
    }
}

class DispatchTest : public DrivenApplication {};

TEST_F(DispatchTest, OutlivesACallbackThatThrows) {
    const std::pair<std::function<void()>, const char *> rows[] = {
        {[] { throw std::runtime_error("why"); }, "unexpected exception: why"},
        {[] { throw std::bad_alloc(); }, "out of memory"},
        {[] { throw 1; }, "unexpected exception"}};
    int answers = 0;
    ASSERT_EQ(callback.registerAction("play"), NONE);
    for (const auto &[raise, logged] : rows) {
        callback.then = [&, &raise = raise](void *, bundle *) { raise(); };
        client.request("play", 5);
        EXPECT_EQ(device.countLog(DLOG_ERROR, "Send", logged), 1);
        EXPECT_EQ(nelvo_complete_action_execution(callback.last(), "x"), NONE);
        device.advance();
        EXPECT_EQ(answerCount(), ++answers);
        try {
            raise();
        } catch (...) {
            EXPECT_EQ(logException("f"),
                      logged == std::string("out of memory") ? NELVO_ERROR_OUT_OF_MEMORY : FAILED);
        }
        EXPECT_EQ(device.countLog(DLOG_ERROR, "f", logged), 1);
    }
}

} // namespace
} // namespace nelvo
