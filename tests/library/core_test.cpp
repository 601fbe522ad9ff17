// SPDX-License-Identifier: Apache-2.0
// The core: SDK versions, start and stop, arguments, dispatch, answers, exceptions.
#include "driven_application.h"

#include <stdexcept>

#include "action_request_impl.h"
#include "allocation_faults.h"
#include "log.h"
#include "message_service.h"
#include "nelvo_common_data.h"
#include "nelvo_impl.h"
#include "response.h"
#include "state_request_impl.h"

extern "C" __attribute__((weak)) void __gcov_dump(); // there when coverage is measured

namespace nelvo {
namespace {

constexpr int NONE = NELVO_ERROR_NONE;
constexpr int FAILED = NELVO_ERROR_OPERATION_FAILED;
constexpr int OOM = NELVO_ERROR_OUT_OF_MEMORY;
constexpr int INVALID = NELVO_ERROR_INVALID_PARAMETER;
const std::string KEY = "http://developer.tizen.org/tizen/metadata/nelvo/sdk/version";

std::string metadata(const std::string &key, const std::string &value) {
    return "<metadata key=\"" + key + "\" value=\"" + value + "\"/>";
}

TEST(SharedDataTest, IsResetAtEachStartAndStop) {
    inFreshProcess([] {
        testkit::Simulation device;
        NelvoCommonData &data = *NelvoCommonData::getInstance();
        EXPECT_EQ(data._currentActionHandler, 0);
        EXPECT_EQ(data._requestId, 0u);
        const std::pair<int (*)(), int> rows[] = {{nelvo_initialize, 1}, {nelvo_deinitialize, 0}};
        for (const auto &[call, handler] : rows) {
            data._requestId = 5;
            call();
            EXPECT_EQ(data._currentActionHandler, handler);
            EXPECT_EQ(data._requestId, ~0ull);
        }
        data._requestIdMap[data._currentActionHandler + 1] = {"old", 1};
        EXPECT_EQ(data._requestIdMap[data.takeActionHandler("new")].first, "new");
        EXPECT_EQ(data.initialize(), 0);
        EXPECT_EQ(data.deinitialize(), 0);
        EXPECT_EQ(StateRequestImpl::getInstance()->initialize(), NONE);
        EXPECT_EQ(StateRequestImpl::getInstance()->deinitialize(), NONE);
        EXPECT_EQ(ActionRequestImpl::getInstance()->deinitialize(), NONE);
    });
}

TEST(SdkVersionTest, DecidesForTheLifeOfTheProcess) {
    const int REFUSED = NELVO_ERROR_NOT_SUPPORTED;
    const std::string old = metadata(KEY, "x1.0-alphay");
    const std::pair<std::string, int> rows[] = {
        {"", REFUSED},
        {metadata("HTTP" + KEY.substr(4), "1.0") + metadata(KEY + "s", "1.0"), REFUSED},
        {metadata(KEY, "1.0") + old, REFUSED},
        {metadata("a", "1.0-alpha") + old + metadata(KEY, ""), NONE},
    };
    for (const auto &[entries, wanted] : rows)
        inFreshProcess([&, &entries = entries, wanted = wanted] {
            SCOPED_TRACE(entries);
            testkit::Simulation device;
            device.setManifest("<manifest><ui-application appid=\"demo.app\">" + entries +
                               "</ui-application></manifest>");
            EXPECT_EQ(nelvo_initialize(), wanted);
            const std::string refusal = "D initialize: App SDK Nelvo Init Failed. App SDK version "
                                        "doesn't support TIDL.";
            EXPECT_EQ(device.logTexts().back() == refusal, wanted == REFUSED);
            nelvo_deinitialize();
            device.setSdkVersion("1.0");
            EXPECT_EQ(nelvo_initialize(), wanted) << "the second time";
            nelvo_deinitialize();
            EXPECT_EQ(device.countLog(DLOG_DEBUG, "_nelvo_metadata_cb",
                                      "metadata_key[a] metadata_value[1.0-alpha]"),
                      wanted == NONE ? 1 : 0);
            EXPECT_THAT(device.log().front().text,
                        testing::MatchesRegex("v1\\.0-beta\\.1\\.4 :  [0-9]+ "
                                              "getAppSdkVersion\\(\\): AppId = demo\\.app"));
        });
}

TEST(CoreTest, ReportsEachCallWithoutMemory) {
    inFreshProcess([] {
        testkit::Simulation device;
        testkit::failAllocation(1, true);
        EXPECT_EQ(nelvo_initialize(), OOM);
        testkit::stopFailingAllocations();
        EXPECT_EQ(nelvo_deinitialize(), OOM);
        EXPECT_EQ(nelvo_set_action_execution_cb(nullptr, nullptr, nullptr), OOM)
            << "the core is checked before the arguments";
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
                                "E UnsetCB: " + null, "E Send: " + null,
                                "E sendResponse: " + null));
    });
}

TEST(CoreTest, NamesNoActionWithoutMemoryForTheSharedData) {
    inFreshProcess([] {
        testkit::Simulation device;
        NelvoImpl::getInstance();
        char *name = nullptr;
        testkit::failAllocation(1, true);
        EXPECT_EQ(nelvo_get_action_name(&name, &name), FAILED);
        testkit::stopFailingAllocations();
        EXPECT_EQ(device.logTexts().back(), "E getActionName: NelvoCommonData instance is null");
    });
}

TEST(CoreTest, ChecksArgumentsAndWhetherThereWasARequest) {
    testkit::Simulation device;
    int slot = 0;
    char *name = reinterpret_cast<char *>(&slot);
    EXPECT_EQ(nelvo_set_action_execution_cb(nullptr, Callback::action, nullptr), INVALID);
    EXPECT_EQ(nelvo_unset_action_execution_cb(nullptr), INVALID);
    EXPECT_EQ(nelvo_get_action_name(&slot, nullptr), INVALID);
    EXPECT_EQ(nelvo_get_action_name(&slot, &name), FAILED);
    EXPECT_EQ(name, nullptr);
    EXPECT_EQ(nelvo_initialize(), NONE);
    EXPECT_EQ(nelvo_complete_action_execution(&slot, "x"), FAILED);
    EXPECT_EQ(nelvo_complete_app_state_request(&slot, "x"), FAILED);
    EXPECT_EQ(nelvo_complete_app_state_request(nullptr, "x"), INVALID);
    EXPECT_EQ(sendResponse(createSuccessResponse("result", "x")), FAILED);
    EXPECT_THAT(device.logTexts(DLOG_ERROR),
                ElementsAre("E nelvo_get_action_name: action_id is null",
                            "E getActionName: In getActionName, entry not found",
                            "E completeActionExecution: Nelvo Client is not connected",
                            "E completeAppStateRequest: Nelvo Client is not connected",
                            "E completeAppStateRequest: StateRequestInfo is null",
                            "E sendResponse: Nelvo Client is not connected"));
    nelvo_deinitialize();
    EXPECT_EQ(testkit::liveHandles(), testkit::NO_HANDLES);
}

TEST(ResponseTest, AddsTheEntriesInTheDocumentedOrder) {
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

TEST_F(DispatchTest, KeepsThePendingRequestIfTheNextOneRunsOutOfMemory) {
    ASSERT_EQ(callback.registerAction("play"), NONE);
    const std::string name(50, 'x'); // too long to be copied without an allocation
    const client::BundlePtr dropped = client::makeRequest({name, 1, {}, {}});
    for (int nth = 1; nth <= 3; ++nth) { // client id, action id, room for the client id
        client.request("play");
        testkit::failAllocation(nth);
        EXPECT_THROW(NelvoImpl::getInstance()->executeRequest(name.c_str(), dropped.get()),
                     std::bad_alloc);
        EXPECT_EQ(testkit::stopFailingAllocations(), 1);
        EXPECT_EQ(nelvo_complete_action_execution(callback.last(), "done"), NONE);
        device.advance();
        EXPECT_EQ(answerCount(), nth);
    }
}

// The roads to a callback: called with a request, called by a tick after a late registration, asked for
// the state. Each names the function whose error line an exception becomes.
struct Road {
    const char *function;
    void (*take)(testkit::Simulation &device, testkit::Client &client, testkit::Callback &callback);
};
const Road ROADS[] = {{"receiveRequest",
                       [](auto &, auto &client, auto &callback) {
                           callback.registerAction("play");
                           client.request("play", 5);
                       }},
                      {"_actionExecutionFireCb",
                       [](auto &device, auto &client, auto &callback) {
                           client.request("late", 5);
                           callback.registerAction("late");
                           device.advance(0.03);
                           nelvo_unset_action_execution_cb("late");
                       }},
                      {"receiveRequest", [](auto &, auto &client, auto &callback) {
                           callback.registerState();
                           client.requestState(5);
                       }}};

TEST_F(DispatchTest, LetsThreadsEndInsideCallbacks) {
    for (const Road &road : ROADS) {
        const auto endThread = [&] {
            struct Unwound {
                ~Unwound() {
                    if (__gcov_dump)
                        __gcov_dump();
                    std::_Exit(7);
                }
            } unwound;
            callback.then = [](void *, bundle *) { pthread_exit(nullptr); };
            road.take(device, client, callback);
            std::_Exit(1);
        };
        EXPECT_EXIT(endThread(), testing::ExitedWithCode(7), "");
    }
}

TEST_F(DispatchTest, SurvivesACallbackThatThrows) {
    const struct {
        std::function<void()> raise;
        const char *logged;
        int code;
    } rows[] = {{[] { throw std::runtime_error("why"); }, "unexpected exception: why", FAILED},
                {[] { throw std::bad_alloc(); }, "out of memory", OOM},
                {[] { throw 1; }, "unexpected exception", FAILED}};
    for (const auto &row : rows) {
        callback.then = [&](void *, bundle *) { row.raise(); };
        for (const Road &road : ROADS) {
            device.clearLog();
            road.take(device, client, callback);
            EXPECT_EQ(device.logTexts(DLOG_ERROR),
                      (std::vector{std::string("E ") + road.function + ": " + row.logged}));
            device.advance(31);
            EXPECT_EQ(answerCount(), callback.count()) << "with a failure";
        }
        try {
            row.raise();
        } catch (...) {
            EXPECT_EQ(logException("f"), row.code);
        }
    }
}

} // namespace
} // namespace nelvo
