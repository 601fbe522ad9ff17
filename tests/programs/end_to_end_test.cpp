// SPDX-License-Identifier: Apache-2.0
// Real processes over real sockets: the example applications, driven with nelvoctl.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "child.h"

namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;
using nelvo::testkit::Child;
using nelvo::testkit::PATIENCE;
using Arguments = std::vector<std::string>;

class EndToEndTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(_folder), nullptr);
        // Relative: the path of a socket has little room, the build folder's may be long.
        setenv("NELVO_HOST_RUNTIME_DIR", _folder, 1);
        unsetenv("NELVO_HOST_APP_ID");
        unsetenv("NELVO_HOST_MANIFEST");
        unsetenv("NELVO_LOG");
    }

    void TearDown() override { std::filesystem::remove_all(_folder); }

    static void waitUntilServed(const std::string &appId) {
        const auto deadline = Clock::now() + PATIENCE;
        while (Child(NELVOCTL, {"state", appId}).wait() > 1) // any answer will do
            ASSERT_LT(Clock::now(), deadline) << appId << " did not start";
    }

    struct Row {
        const char *name;
        Arguments arguments;
        int exitCode;
        std::string wanted; // exit codes 0 and 1: the answer but for its id; else part of the error
    };

    template <size_t N>
    static void expectAll(const Row (&rows)[N]) {
        for (const Row &row : rows) {
            SCOPED_TRACE(row.name);
            Child nelvoctl(NELVOCTL, row.arguments);
            EXPECT_EQ(nelvoctl.wait(), row.exitCode) << nelvoctl.err();
            if (row.exitCode <= 1) {
                json answer = json::parse(nelvoctl.out(), nullptr, false);
                ASSERT_TRUE(answer.is_object()) << nelvoctl.out();
                EXPECT_TRUE(answer["requestId"].is_number_unsigned());
                answer.erase("requestId");
                EXPECT_EQ(answer, json::parse(row.wanted));
            } else {
                EXPECT_EQ(nelvoctl.out(), "");
                EXPECT_NE(("\n" + nelvoctl.err()).find("\nnelvoctl: "), std::string::npos);
                EXPECT_NE(nelvoctl.err().find(row.wanted), std::string::npos) << nelvoctl.err();
            }
        }
    }

private:
    char _folder[16] = "e2e-XXXXXX";
};

std::string success(const std::string &result) {
    return json{{"result", result}, {"status_code", "ACTION_EXECUTION_SUCCESS"}}.dump();
}

std::string state(const char *state) {
    return json{{"appContext", state}, {"status_code", "ACTION_EXECUTION_SUCCESS"}}.dump();
}

const char *const APP = "demo.player";

TEST_F(EndToEndTest, DrivesThePlayerThroughEverythingItCanDo) {
    Child player(PLAYER, {});
    waitUntilServed(APP);
    const std::string badVolume =
        success(R"(error: set_volume expects {"volume": N} with a whole N from 0 to 100)");
    const std::string badSeek =
        success(R"(error: seek expects {"position": SECONDS} with SECONDS from 0 to 3600)");
    const Row rows[] = {
        {"its first state",
         {"state", APP},
         0,
         state(R"({"playing":false,"position":0.0,"shuffled":false,"volume":50})")},
        {"at once", {"call", APP, "play"}, 0, success("playing")},
        {"loud", {"call", APP, "set_volume", R"({"volume": 100})"}, 0, success("volume 100")},
        {"too loud", {"call", APP, "set_volume", R"({"volume": 101})"}, 0, badVolume},
        {"negative", {"call", APP, "set_volume", R"({"volume": -1})"}, 0, badVolume},
        {"not whole", {"call", APP, "set_volume", R"({"volume": 1.5})"}, 0, badVolume},
        {"no JSON", {"call", APP, "set_volume", "{"}, 0, badVolume},
        {"no params", {"call", APP, "set_volume"}, 0, badVolume},
        {"no object", {"call", APP, "set_volume", "--", "-1"}, 0, badVolume},
        {"later", {"call", APP, "seek", R"({"position": 7.5})"}, 0, success("position 7.5")},
        {"beyond the end", {"call", APP, "seek", R"({"position": 3601})"}, 0, badSeek},
        {"before shuffle is there", {"call", APP, "load_playlist"}, 0, success("loading")},
        {"waits for its registration", {"call", APP, "shuffle"}, 0, success("shuffled")},
        {"never", {"call", APP, "record", "--timeout", "0.2"}, 4, "no answer within 0.2 s"},
        {"after that", {"call", "--as", "demo.other", APP, "pause"}, 0, success("paused")},
        {"nobody's action",
         {"call", APP, "dance"},
         1,
         R"({"result":"","status_code":"ACTION_EXECUTION_FAILURE",)"
         R"("status_msg":"Action Execution callback not registered"})"},
        {"its last state",
         {"state", APP},
         0,
         state(R"({"playing":false,"position":7.5,"shuffled":true,"volume":100})")},
    };
    expectAll(rows);
    player.signal(SIGTERM);
    EXPECT_EQ(player.wait(), 0) << player.err();
}

TEST_F(EndToEndTest, PrintsWhatTheApplicationAnswersAsValidJson) {
    Child hello(HELLO, {});
    waitUntilServed("demo.hello");
    const Row rows[] = {
        {"no params", {"call", "demo.hello", "greet"}, 0, success("Hello, world!")},
        {"a name", {"call", "demo.hello", "greet", "Ann"}, 0, success("Hello, Ann!")},
        {"an empty one", {"call", "demo.hello", "greet", ""}, 0, success("Hello, !")},
        {"brackets", {"call", "demo.hello", "greet", "[1,2]"}, 0, success("Hello, [1,2]!")},
        {"two lines", {"call", "demo.hello", "greet", "\"\n\""}, 0, success("Hello, \"\n\"!")},
        {"not UTF-8", {"call", "demo.hello", "greet", "\xff"}, 0, success("Hello, \xef\xbf\xbd!")},
        {"no state",
         {"state", "demo.hello"},
         1,
         R"({"appContext":"","status_code":"ACTION_EXECUTION_FAILURE",)"
         R"("status_msg":"App state request callback not registered"})"},
    };
    expectAll(rows);
}

TEST_F(EndToEndTest, RefusesArgumentsThatCannotBeMeant) {
    const Row rows[] = {
        {"nothing", {}, 2, "--help"},
        {"no such command", {"cal", APP, "play"}, 2, "--help"},
        {"no action", {"call", APP}, 2, "ACTION_ID"},
        {"too many", {"call", APP, "play", "{}", "{}"}, 2, "--help"},
        {"no time", {"state", APP, "--timeout", "0"}, 2, "above 0"},
        {"negative time", {"state", APP, "--timeout", "-1"}, 2, "above 0"},
        {"endless time", {"state", APP, "--timeout", "inf"}, 2, "above 0"},
        {"time that is none", {"state", APP, "--timeout", "nan"}, 2, "above 0"},
        {"a unit", {"state", APP, "--timeout", "5s"}, 2, "above 0"},
        {"an application id that is a path", {"state", "../x"}, 2, "not an application id"},
        {"a client id that is one", {"state", APP, "--as", "../x"}, 2, "not an application id"},
    };
    expectAll(rows);
    Child help(NELVOCTL, {"--help"});
    EXPECT_EQ(help.wait(), 0);
    EXPECT_NE(help.out().find("call"), std::string::npos);
}

TEST_F(EndToEndTest, TellsAnAbsentApplicationFromOneThatHangsOrDies) {
    const Row absent[] = {{"absent", {"state", "demo.absent"}, 3, "start that application first"}};
    const Row died[] = {{"died", {"state", APP}, 3, "left its socket behind"}};
    const Row hangs[] = {{"hangs", {"state", APP, "--timeout", "0.2"}, 4, "main-loop-stuck"}};
    expectAll(absent);
    setenv("NELVO_LOG", "debug", 1); // to see when the request has come
    Child player(PLAYER, {});
    waitUntilServed(APP);
    player.signal(SIGSTOP);
    expectAll(hangs);
    player.signal(SIGCONT);

    Child nelvoctl(NELVOCTL, {"call", APP, "record"});
    ASSERT_TRUE(player.waitForErr("Found execute action Id: record"));
    player.signal(SIGKILL);
    EXPECT_EQ(nelvoctl.wait(), 3);
    EXPECT_NE(nelvoctl.err().find("lost the connection"), std::string::npos) << nelvoctl.err();
    player.wait(); // until its socket is closed
    expectAll(died);
}

} // namespace
