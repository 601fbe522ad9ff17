// SPDX-License-Identifier: Apache-2.0
// What a client gets from the player, and when. The clock is moved by hand.
#include <gtest/gtest.h>

#include <nelvo.h>
#include <nelvo/testkit.h>

#include "remote.h"

namespace {

using nelvo::testkit::Client;
using nelvo::testkit::failure;
using nelvo::testkit::Fields;
using nelvo::testkit::success;

class PlayerTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
        ASSERT_EQ(remote.registerAll(), NELVO_ERROR_NONE);
        ASSERT_TRUE(client.join());
    }
    void TearDown() override {
        nelvo_deinitialize();
        EXPECT_EQ(device.takeWarnings(), warnings);
    }

    // What the client gets when so much time has passed, and nothing before.
    Fields ask(const std::string &actionId, const std::string &params = "", double seconds = 0) {
        client.answers.clear();
        client.request(actionId, 1, params);
        if (seconds > 0) {
            device.advance(seconds - 0.001);
            EXPECT_TRUE(client.answers.empty()) << "too early";
            device.advance(0.002);
        }
        EXPECT_EQ(client.answers.size(), 1u);
        return client.answers.empty() ? Fields() : client.answers[0].fields;
    }

    nelvo::testkit::Simulation device{"demo.player"};
    Client client;
    Player player;
    Remote remote{player};
    std::vector<std::string> warnings; // none, unless a test wants some
};

TEST_F(PlayerTest, AnswersEachActionWithWhatBecameOfIt) {
    const struct {
        const char *actionId, *params, *result;
        double seconds; // until the answer
        const char *state;
    } rows[] = {
        {"play", "", "playing", 0, R"("playing":true)"},
        {"pause", "", "paused", 0, R"("playing":false)"},
        {"set_volume", R"({"volume": 0})", "volume 0", 0, R"("volume":0})"},
        {"seek", R"({"position": 3600})", "position 3600", 0.2, R"("position":3600.0)"},
        {"seek", R"({"position": 3600.1})",
         R"(error: seek expects {"position": SECONDS} with SECONDS from 0 to 3600)", 0.2,
         R"("position":3600.0)"},
        {"load_playlist", "", "loading", 0, R"("shuffled":false)"},
        {"shuffle", "", "shuffled", 0.08, R"("shuffled":true)"}, // when the playlist has been read
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.actionId) + " " + row.params);
        EXPECT_EQ(ask(row.actionId, row.params, row.seconds), success("result", row.result));
        EXPECT_NE(player.state().find(row.state), std::string::npos) << player.state();
        EXPECT_EQ(ask("getAppContext"), success("appContext", player.state()));
    }
}

TEST_F(PlayerTest, LeavesToTheLibraryWhatItDoesNotAnswer) {
    const Fields unknown = failure("result", "Action Execution callback not registered");
    EXPECT_EQ(ask("dance", "", 0.12), unknown);
    EXPECT_EQ(ask("shuffle", "", 0.12), unknown) << "no playlist has been loaded";
    EXPECT_EQ(ask("record", "", 30), failure("result", "Action execution request timed out"));
    EXPECT_EQ(ask("play"), success("result", "playing"));
}

TEST_F(PlayerTest, ShufflesTheLatestPlaylistOnly) {
    ask("load_playlist");
    device.advance(0.05);
    for (const char *when : {"while another is being read", "when another has been read"}) {
        SCOPED_TRACE(when);
        ask("load_playlist");
        EXPECT_EQ(ask("shuffle", "", 0.08), success("result", "shuffled"));
    }
}

TEST_F(PlayerTest, LetsANewerSeekTakeThePlaceOfAnother) {
    client.request("seek", 1, R"({"position": 1})");
    client.request("seek", 2, R"({"position": 2})");
    device.advance(40);
    ASSERT_EQ(client.answers.size(), 1u);
    EXPECT_EQ(client.answers[0].requestId, 2u);
    EXPECT_EQ(client.answers[0].fields, success("result", "position 2"));
}

TEST_F(PlayerTest, SeeksToTheEndThoughAnotherActionOvertakes) {
    client.request("seek", 1, R"({"position": 7})");
    EXPECT_EQ(ask("play"), success("result", "playing"));
    device.advance(40);
    EXPECT_EQ(client.answers.size(), 1u) << "the seek is not answered";
    EXPECT_NE(player.state().find(R"("position":7.0)"), std::string::npos);
    warnings = {"nelvo_complete_action_execution() for \"seek\": a newer request had overtaken it"};
}

TEST_F(PlayerTest, SaysSoWhenItCannotSeek) {
    nelvo::testkit::failPlatformCall("ecore_timer_add", 0, 2); // the first is the library's
    EXPECT_EQ(ask("seek"), success("result", "error: out of memory"));
    EXPECT_EQ(nelvo::testkit::stopFailing(), 1);
}

} // namespace
