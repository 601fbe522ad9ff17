// SPDX-License-Identifier: Apache-2.0
#include "driven_application.h"

#include <cstdlib>
#include <stdexcept>

namespace nelvo {
namespace {

const std::string KEY = "http://developer.tizen.org/tizen/metadata/nelvo/sdk/version";

std::string metadata(const std::string &key, const std::string &value) {
    return "<metadata key=\"" + key + "\" value=\"" + value + "\"/>";
}

struct Gate {
    const char *name;
    std::string metadata;
    int initialized;
};

class SdkVersionGate : public testing::TestWithParam<Gate> {};

TEST_P(SdkVersionGate, DecidesForTheLifeOfTheProcess) {
    testkit::Simulation device;
    const auto install = [&](const std::string &entries) {
        device.setManifest("<manifest><ui-application appid=\"demo.app\">" + entries +
                           "</ui-application></manifest>");
    };
    install(GetParam().metadata);
    EXPECT_EQ(nelvo_initialize(), GetParam().initialized);
    if (GetParam().initialized == NELVO_ERROR_NOT_SUPPORTED) {
        EXPECT_EQ(device.logTexts().back(), "D initialize: App SDK Nelvo Init Failed. App SDK "
                                            "version doesn't support TIDL.");
    }
    nelvo_deinitialize();
    install(metadata(KEY, "1.0"));
    EXPECT_EQ(nelvo_initialize(), GetParam().initialized);
    nelvo_deinitialize();
}

INSTANTIATE_TEST_SUITE_P(
    Manifests, SdkVersionGate,
    testing::Values(
        Gate{"None", "", NELVO_ERROR_NOT_SUPPORTED},
        Gate{"Alpha", metadata(KEY, "1.0-alpha"), NELVO_ERROR_NOT_SUPPORTED},
        Gate{"LaterAlpha", metadata(KEY, "2.1.0-alpha"), NELVO_ERROR_NOT_SUPPORTED},
        Gate{"NumberedAlpha", metadata(KEY, "1.0-alpha2"), NELVO_ERROR_NOT_SUPPORTED},
        Gate{"AlphaInside", metadata(KEY, "x1.0-alphay"), NELVO_ERROR_NOT_SUPPORTED},
        Gate{"Beta", metadata(KEY, "1.0-beta"), NELVO_ERROR_NONE},
        Gate{"OtherCase", metadata(KEY, "1.0-Alpha"), NELVO_ERROR_NONE},
        Gate{"Empty", metadata(KEY, ""), NELVO_ERROR_NONE},
        Gate{"LongerKey", metadata(KEY + "s", "1.0"), NELVO_ERROR_NOT_SUPPORTED},
        Gate{"KeyInOtherCase", metadata("HTTP" + KEY.substr(4), "1.0"), NELVO_ERROR_NOT_SUPPORTED},
        Gate{"TwiceLaterAdmits", metadata(KEY, "1.0-alpha") + metadata(KEY, "1.0"),
             NELVO_ERROR_NONE},
        Gate{"TwiceLaterRefuses", metadata(KEY, "1.0") + metadata(KEY, "1.0-alpha"),
             NELVO_ERROR_NOT_SUPPORTED},
        Gate{"AmongOthers", metadata("a", "1.0-alpha") + metadata(KEY, "1.0") + metadata("b", "c"),
             NELVO_ERROR_NONE}),
    [](const auto &row) { return row.param.name; });

TEST(NelvoImplTest, LogsEveryMetadataEntry) {
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

TEST(NelvoImplTest, IsReachableOnlyWhileInitialised) {
    testkit::Simulation device;
    Client client;
    EXPECT_FALSE(client.connect());
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        Callback callback;
        EXPECT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
        EXPECT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
        EXPECT_EQ(
            device.countLog(DLOG_ERROR, "initialize", "NelvoImpl has been already initialized"),
            round + 1);
        ASSERT_TRUE(client.join());
        client.request("getAppContext");
        EXPECT_EQ(client.answers.back().field("status_msg"),
                  "App state request callback not registered");

        ASSERT_EQ(callback.registerState(), NELVO_ERROR_NONE);
        ASSERT_EQ(callback.registerAction("play"), NELVO_ERROR_NONE);
        client.request("play");
        EXPECT_EQ(numberOf(callback.last()), 2);
        EXPECT_EQ(nelvo_deinitialize(), NELVO_ERROR_NONE);
        device.advance(60);
        EXPECT_FALSE(client.connected());
        EXPECT_FALSE(client.connect());
        EXPECT_EQ(client.answers.size(), static_cast<std::size_t>(round + 1));
        EXPECT_EQ(host_sim_timer_count(), 0);
    }
}

TEST(NelvoImplTest, RefusesEverythingWhileNotInitialised) {
    testkit::Simulation device;
    Callback callback;
    int slot = 0;
    char *name = reinterpret_cast<char *>(&slot);
    const struct {
        const char *function;
        int returned;
    } rows[] = {{"setAppStateRequestCb", callback.registerState()},
                {"unsetAppStateRequestCb", nelvo_unset_app_state_request_cb()},
                {"completeAppStateRequest", nelvo_complete_app_state_request(&slot, "x")},
                {"setActionExcutionCb", callback.registerAction("play")},
                {"unsetExecuteActionCb", nelvo_unset_action_execution_cb("play")},
                {"completeActionExecution", nelvo_complete_action_execution(&slot, "x")}};
    for (const auto &row : rows) {
        EXPECT_EQ(row.returned, NELVO_ERROR_OPERATION_FAILED) << row.function;
        EXPECT_EQ(device.countLog(DLOG_ERROR, row.function, "Nelvo is not initialized"), 1)
            << row.function;
    }
    EXPECT_EQ(nelvo_set_action_execution_cb(nullptr, Callback::action, nullptr),
              NELVO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(nelvo_unset_action_execution_cb(nullptr), NELVO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(nelvo_get_action_name(&slot, nullptr), NELVO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(device.countLog(DLOG_ERROR, "nelvo_get_action_name", "action_id is null"), 1);
    EXPECT_EQ(nelvo_get_action_name(&slot, &name), NELVO_ERROR_OPERATION_FAILED);
    EXPECT_EQ(name, nullptr);

    ASSERT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
    EXPECT_EQ(nelvo_complete_action_execution(&slot, "x"), NELVO_ERROR_OPERATION_FAILED);
    EXPECT_EQ(nelvo_complete_app_state_request(&slot, "x"), NELVO_ERROR_OPERATION_FAILED);
    EXPECT_EQ(nelvo_complete_app_state_request(nullptr, "x"), NELVO_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(
        device.countLog(DLOG_ERROR, "completeActionExecution", "Nelvo Client is not connected"), 1);
    EXPECT_EQ(
        device.countLog(DLOG_ERROR, "completeAppStateRequest", "Nelvo Client is not connected"), 1);
    EXPECT_EQ(device.takeWarnings().size(), 2u); // of the two completions before the start
    nelvo_deinitialize();
}

class DispatchTest : public DrivenApplication {
protected:
    void SetUp() override {
        DrivenApplication::SetUp();
        ASSERT_EQ(state.registerState(), NELVO_ERROR_NONE);
        for (const char *id : {"getAppContext", "getappcontext", "getAppContext ", "", "play"})
            ASSERT_EQ(callback.registerAction(id), NELVO_ERROR_NONE);
    }
    Callback state;
};

TEST_F(DispatchTest, TakesOnlyTheExactIdForAStateRequest) {
    const struct {
        const char *actionId;
        bool isState;
    } rows[] = {{"getAppContext", true},
                {"getappcontext", false},
                {"getAppContext ", false},
                {"", false},
                {"play", false}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.actionId);
        const int actions = callback.count();
        const int states = state.count();
        client.request(row.actionId);
        EXPECT_EQ(callback.count(), actions + !row.isState);
        EXPECT_EQ(state.count(), states + row.isState);
    }
}

TEST_F(DispatchTest, DropsAMalformedRequestBeforeItSupersedesThePendingOne) {
    const auto bytes = [](std::size_t size) {
        client::BundlePtr request(bundle_create());
        bundle_add_str(request.get(), "actionId", "play");
        bundle_add_byte(request.get(), "requestId", "123456789", size);
        return request;
    };
    std::vector<client::BundlePtr> malformed;
    malformed.push_back(bytes(7));
    malformed.push_back(bytes(9));
    malformed.emplace_back(bundle_create()); // empty
    malformed.emplace_back(bundle_create());
    bundle_add_byte(malformed.back().get(), "actionId", "play", 5); // of another type
    malformed.emplace_back(bundle_create());
    bundle_add_str(malformed.back().get(), "actionId", "play");
    bundle_add_str(malformed.back().get(), "requestId", "1234567"); // likewise

    client.request("play", 21);
    for (const auto &request : malformed) {
        device.clearLog();
        client.send(request.get());
        EXPECT_EQ(device.logTexts(DLOG_ERROR).size(), 1u);
    }
    EXPECT_EQ(callback.count(), 1);
    EXPECT_EQ(nelvo_complete_action_execution(callback.last(), "done"), NELVO_ERROR_NONE);
    device.advance();
    ASSERT_EQ(answerCount(), 1);
    EXPECT_EQ(answer().requestId, 21u);
}

TEST_F(DispatchTest, ServesARequestWithoutAnIdAsNumberZero) {
    const client::BundlePtr request(bundle_create());
    bundle_add_str(request.get(), "actionId", "play");
    client.send(request.get());
    nelvo_complete_action_execution(callback.last(), "done");
    device.advance();
    ASSERT_EQ(answerCount(), 1);
    EXPECT_EQ(answer().requestId, 0u);
}

TEST_F(DispatchTest, OutlivesACallbackThatThrows) {
    const struct {
        std::function<void()> raise;
        const char *logged;
    } rows[] = {{[] { throw std::runtime_error("why"); }, "unexpected exception: why"},
                {[] { throw 1; }, "unexpected exception"}};
    for (const auto &row : rows) {
        callback.then = [&](void *, bundle *) { row.raise(); };
        client.request("play", 5);
        EXPECT_EQ(device.countLog(DLOG_ERROR, "Send", row.logged), 1);
        EXPECT_EQ(nelvo_complete_action_execution(callback.last(), "x"), NELVO_ERROR_NONE);
    }
    device.advance();
    EXPECT_EQ(answerCount(), 2);
}

TEST_F(DispatchTest, NamesTheActionOfTheLatestHandlerOnly) {
    const auto name = [](void *handler) {
        char *text = nullptr;
        const int result = nelvo_get_action_name(handler, &text);
        EXPECT_EQ(result, text ? NELVO_ERROR_NONE : NELVO_ERROR_OPERATION_FAILED);
        const std::string copy = text ? text : "";
        std::free(text);
        return copy;
    };
    client.request("play");
    void *first = callback.last();
    EXPECT_EQ(name(first), "play");
    EXPECT_EQ(name(first), "play");
    client.request("getAppContext");
    EXPECT_EQ(name(first), "");
    EXPECT_EQ(name(state.last()), "getAppContext");
    nelvo_complete_app_state_request(state.last(), "{}");
    EXPECT_EQ(name(state.last()), "getAppContext") << "an answered state request keeps its record";
    client.request("");
    EXPECT_EQ(name(callback.last()), "");
    client.request("play");
    nelvo_complete_action_execution(callback.last(), "done");
    EXPECT_EQ(name(callback.last()), "");
    client.request("play");
    nelvo_deinitialize();
    EXPECT_EQ(name(callback.last()), "");
}

} // namespace
} // namespace nelvo
