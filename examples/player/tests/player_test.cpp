// SPDX-License-Identifier: Apache-2.0
// What a client gets from the player, and when. The clock is moved by hand.
#include <gtest/gtest.h>

#include <nelvo.h>
#include <nelvo/testkit.h>

#include "remote.h"

namespace {

using namespace nelvo::testkit;

class PlayerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
        ASSERT_TRUE(remote.registerAll() == NELVO_ERROR_NONE && client.join());
    }
    void TearDown() override { nelvo_deinitialize(); }

    // What the client gets when so much time has passed, and nothing before.
    Fields ask(const std::string &actionId, const std::string &params = "", double seconds = 0) {
        client.answers.clear();
        client.request(actionId, 1, params);
        if (seconds > 0)
            device.advance(seconds - 0.001);
        EXPECT_EQ(client.answers.empty(), seconds > 0) << "too early, or too late";
        device.advance(0.002);
        EXPECT_EQ(client.answers.size(), 1u);
        return client.answers.empty() ? Fields() : client.answers[0].fields;
    }

    Simulation device{"demo.player"};
    Client client;
    Player player;
    Remote remote{player};
};

TEST_F(PlayerTest, AnswersEachActionWithWhatBecameOfIt) {
    const auto result = [](const char *text) { return success("result", text); };
    const Fields unknown = failure("result", "Action Execution callback not registered");
    const struct {
        const char *actionId, *params;
        Fields answer;
        double seconds = 0; // until the answer
        const char *state = "";
    } rows[] = {
        {"shuffle", "", unknown, 0.12, R"("shuffled":false)"}, // no playlist has been loaded
        {"dance", "", unknown, 0.12},
        {"record", "", failure("result", "Action execution request timed out"), 30},
        {"play", "", result("playing"), 0, R"("playing":true)"},
        {"pause", "", result("paused"), 0, R"("playing":false)"},
        {"set_volume", R"({"volume": 100})", result("volume 100"), 0, R"("volume":100})"},
        {"set_volume", R"({"volume": 0})", result("volume 0"), 0, R"("volume":0})"},
        {"seek", R"({"position": 3600})", result("position 3600"), 0.2, R"("position":3600.0)"},
        {"load_playlist", "", result("loading"), 0, R"("shuffled":false)"},
        {"shuffle", "", result("shuffled"), 0.08, R"("shuffled":true)"}, // as soon as it is read
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.actionId) + " " + row.params);
        EXPECT_EQ(ask(row.actionId, row.params, row.seconds), row.answer);
        EXPECT_NE(player.state().find(row.state), std::string::npos) << player.state();
        client.requestState();
        EXPECT_EQ(client.answers.back().fields, success("appContext", player.state()));
    }
    EXPECT_EQ(device.takeWarnings(), std::vector<std::string>());
}

TEST_F(PlayerTest, DeclaresWhatItRegisters) {
    using nelvo::testkit::compareCatalogue;
    const std::vector<std::string> none, shuffle{"declared, not registered: shuffle"};
    EXPECT_EQ(compareCatalogue(CATALOGUE), shuffle);
    ask("load_playlist");
    device.advance(0.08);
    EXPECT_EQ(compareCatalogue(CATALOGUE), none);
    nelvo_set_action_execution_cb("shuffle", nullptr, nullptr);
    EXPECT_EQ(compareCatalogue(CATALOGUE), shuffle);
    ask("load_playlist");
    device.advance(0.08);
    nelvo_set_action_execution_cb(
        "dance", [](void *, bundle *, void *) {}, nullptr);
    EXPECT_EQ(compareCatalogue(CATALOGUE),
              std::vector<std::string>{"registered, not declared: dance"});
    EXPECT_THROW(compareCatalogue("absent.json"), std::runtime_error);
}

// Recorded from a person at nelvoctl: 31 s, in which one request is overtaken and one times out.
TEST_F(PlayerTest, AnswersAsItDidInARecordedSession) {
    EXPECT_EQ(replay(SESSION), std::vector<std::string>());
    const std::vector<std::string> again = replay(SESSION, {"/appContext/position"});
    ASSERT_EQ(again.size(), 3u) << "the state has changed meanwhile";
    EXPECT_EQ(again[0], "the answer to request 1, getAppContext:");
    EXPECT_EQ(again[1], R"(- appContext: {"playing":false,"shuffled":false,"volume":50})");
    EXPECT_EQ(again[2], R"(+ appContext: {"playing":false,"shuffled":true,"volume":30})");
}

TEST_F(PlayerTest, ShufflesTheLatestPlaylistOnly) {
    ask("load_playlist");
    device.advance(0.05);
    ask("load_playlist"); // while the other is being read
    EXPECT_EQ(ask("shuffle", "", 0.08), success("result", "shuffled"));
    ask("load_playlist"); // when the other has been read
    EXPECT_EQ(ask("shuffle", "", 0.08), success("result", "shuffled"));
}

TEST_F(PlayerTest, SeeksToTheEndWhatTheLatestRequestSaid) {
    client.request("seek", 2, R"({"position": 1})");
    EXPECT_EQ(ask("seek", R"({"position": 2})", 0.2), success("result", "position 2"));
    client.request("seek", 3, R"({"position": 7})");
    EXPECT_EQ(ask("play"), success("result", "playing"));
    device.advance(40);
    EXPECT_EQ(client.answers.size(), 1u) << "the overtaken seek is not answered";
    EXPECT_NE(player.state().find(R"("position":7.0)"), std::string::npos);
    EXPECT_EQ(device.takeWarnings().size(), 1u) << "that a newer request had overtaken it";
}

TEST_F(PlayerTest, SaysSoWhenItCannotSeek) {
    failPlatformCall("ecore_timer_add", 0, 2); // the first is the library's
    EXPECT_EQ(ask("seek"), success("result", "error: out of memory"));
    EXPECT_EQ(stopFailing(), 1);
}

} // namespace
