// SPDX-License-Identifier: Apache-2.0
// What nelvoctl says when nothing comes back. Where time matters, its commands run inside a
// simulated device, beside the application; elsewhere it is the program.
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Ecore.h>
#include <gtest/gtest.h>
#include <host/app_id.h>
#include <nelvo/testkit.h>
#include <nlohmann/json.hpp>

#include "callback.h"
#include "child.h"
#include "client_wire.h"
#include "tools/nelvoctl/commands.h"
#include "tools/nelvoctl/output.h"

namespace {

using nelvo::testkit::Callback;
using nelvo::testkit::Child;
using nelvo::testkit::Client;
using nelvo::testkit::Simulation;
using nlohmann::json;
using Arguments = std::vector<std::string>;

struct Row {
    const char *cause; // "" stands for success
    Arguments arguments;
    int exitCode;
    void (*before)() = [] {};
};

class NelvoctlTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(_folder), nullptr);
        setenv("NELVO_HOST_RUNTIME_DIR", _folder, 1);
        for (const char *name : {"NELVO_HOST_APP_ID", "NELVO_HOST_MANIFEST", "NELVO_LOG", "HOME"})
            unsetenv(name);
    }
    void TearDown() override { std::filesystem::remove_all(_folder); }

    // Everything under --json is JSON; a success holds no error, a failure names its cause.
    static void expectJson(const Row &row, const std::string &out) {
        json document = json::object(); // trace of a program without requests prints none
        std::istringstream lines(out);
        for (std::string line; std::getline(lines, line);) {
            document = json::parse(line, nullptr, false);
            ASSERT_TRUE(document.is_object()) << line;
        }
        const json error = document.value("error", json::object());
        EXPECT_EQ(error.value("cause", ""), row.cause) << out;
        EXPECT_EQ(error.value("exitCode", 0), row.exitCode);
    }

    static void expect(const Row &row) {
        SCOPED_TRACE(std::string(row.cause) + ": " + testing::PrintToString(row.arguments));
        row.before();
        Child plain(NELVOCTL, row.arguments);
        EXPECT_EQ(plain.wait(), row.exitCode) << plain.err();
        if (row.exitCode != 0) {
            EXPECT_NE((plain.out() + plain.err()).find(std::string(row.cause) + ": "),
                      std::string::npos)
                << plain.err();
        }
        Arguments arguments = row.arguments;
        arguments.insert(arguments.begin(), "--json");
        Child withJson(NELVOCTL, arguments);
        EXPECT_EQ(withJson.wait(), row.exitCode);
        expectJson(row, withJson.out());
    }

    static void waitUntilServed(const std::string &appId) {
        ASSERT_LE(Child(NELVOCTL, {"state", appId, "--wait", "20"}).wait(), 1);
    }

private:
    char _folder[16] = "ctl-XXXXXX";
};

bool isPeerAnotherUser = false; // for this process

Simulation *device;
Client *other;
rpc_port_stub_h odd; // an application that does not use the library

Eina_Bool otherAsksCb(void *) {
    nelvo::testkit::post(*other, "never", 7);
    return ECORE_CALLBACK_CANCEL;
}

void startOdd(rpc_port_stub_connected_event_cb connected,
              rpc_port_stub_received_event_cb received) {
    host_set_app_id("demo.odd");
    rpc_port_stub_create(&odd, "message");
    rpc_port_stub_add_connected_event_cb(odd, connected, nullptr);
    rpc_port_stub_add_received_event_cb(odd, received, nullptr);
    rpc_port_stub_listen(odd);
}

const Row SIMULATED[] = {
    {"", {"call", "demo.app", "now"}, 0},
    {"", {"watch", "demo.app", "-n", "3"}, 0},
    {"", {"bench", "demo.app", "now", "-n", "20"}, 0},
    {"no-callback", {"bench", "demo.app", "absent", "-n", "3"}, 1},
    {"no-callback", {"call", "demo.app", "absent"}, 1},
    {"app-timeout", {"call", "demo.app", "never"}, 1},
    {"client-timeout", {"call", "demo.app", "never", "--timeout", "29"}, 4},
    {"superseded",
     {"call", "demo.app", "never"},
     4,
     [] { ecore_timer_add(6, otherAsksCb, nullptr); }},
    {"connection-lost", {"call", "demo.app", "stop"}, 3},
    {"nobody-listens", {"state", "demo.absent", "--wait", "60"}, 3},
    {"internal",
     {"state", "demo.app"},
     3,
     [] { nelvo::testkit::failPlatformCall("ecore_timer_add", 0); }},
    {"", {"doctor", "demo.app"}, 0, [] { device->setAllowList("nelvo.client\n"); }},
    {"not-admitted", {"state", "demo.app"}, 3, [] { device->setAllowList("demo.client\n"); }},
    {"not-admitted", {"doctor", "demo.app"}, 3, [] { device->setAllowList(""); }},
    {"callback-refused",
     {"state", "demo.odd"},
     3,
     [] { startOdd([](auto...) {}, [](auto...) { return -1; }); }},
    {"refused",
     {"state", "demo.odd"},
     3,
     [] { startOdd([](auto...) { rpc_port_stub_destroy(odd); }, [](auto...) { return 0; }); }},
};

// Runs the row in this process; what it prints is lost, the exit code is the test's.
int runSimulated(const Row &row, bool withJson) {
    Simulation simulation;
    device = &simulation;
    Callback now, never, stop;
    nelvo_initialize();
    now.then = [](void *handler, bundle *request) {
        request ? nelvo_complete_action_execution(handler, "done")
                : nelvo_complete_app_state_request(handler, "{\"n\": 1}");
    };
    stop.then = [](void *, bundle *) { nelvo_deinitialize(); };
    now.registerState();
    now.registerAction("now");
    never.registerAction("never");
    stop.registerAction("stop");
    Client client;
    other = &client;
    client.join();
    row.before();
    std::vector<const char *> arguments = {"nelvoctl"};
    if (withJson)
        arguments.push_back("--json");
    for (const std::string &argument : row.arguments)
        arguments.push_back(argument.c_str());
    const int code = nelvoctl::run(static_cast<int>(arguments.size()), arguments.data());
    if (code != row.exitCode)
        for (const nelvo::testkit::LogLine &line : device->log())
            std::fprintf(stderr, "%s\n", line.summary().c_str());
    return code;
}

TEST_F(NelvoctlTest, NamesTheCauseOfEverySilenceOfASimulatedApplication) {
    for (const Row &row : SIMULATED) {
        SCOPED_TRACE(std::string(row.cause) + ": " + testing::PrintToString(row.arguments));
        for (bool withJson : {false, true}) {
            testing::internal::CaptureStdout();
            testing::internal::CaptureStderr();
            int status = -1;
            const pid_t child = fork();
            if (child == 0)
                _exit(runSimulated(row, withJson)); // one platform per process
            waitpid(child, &status, 0);
            const std::string out = testing::internal::GetCapturedStdout();
            const std::string err = testing::internal::GetCapturedStderr();
            EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, row.exitCode) << err;
            if (withJson)
                expectJson(row, out);
            else if (row.exitCode != 0) {
                EXPECT_NE((out + err).find(row.cause + std::string(": ")), std::string::npos)
                    << out << err;
            }
        }
    }
}

TEST_F(NelvoctlTest, NamesWhatIsWrongWithAProcess) {
    const Row rows[] = {
        {"", {"list"}, 0},
        {"usage", {"call", "demo.app"}, 2},
        {"not-started", {"trace", "--", "./absent"}, 3},
        {"failure", {"trace", "--", "false"}, 1},
        {"", {"trace", "--", "true"}, 0},
    };
    for (const Row &row : rows)
        expect(row);

    setenv("NELVO_HOST_APP_ID", "demo.idle", 1);
    Child idle(IDLE, {});
    ASSERT_TRUE(idle.waitForErr("idle"));
    expect({"not-initialised", {"state", "demo.idle"}, 3});
    std::ofstream(std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/old.xml"))
        << "<manifest><ui-application appid='demo.old'><metadata key='http://developer.tizen.org/"
           "tizen/metadata/nelvo/sdk/version' value='1.0-alpha'/></ui-application></manifest>";
    const std::string manifest = std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/old.xml");
    setenv("NELVO_HOST_APP_ID", "demo.old", 1);
    setenv("NELVO_HOST_MANIFEST", manifest.c_str(), 1);
    Child old(IDLE, {"initialise"});
    ASSERT_TRUE(old.waitForErr("idle"));
    unsetenv("NELVO_HOST_APP_ID");
    unsetenv("NELVO_HOST_MANIFEST");
    expect({"sdk-version", {"state", "demo.old"}, 3});
    expect({"sdk-version", {"doctor", "demo.old"}, 3});
    expect({"sdk-version", {"doctor", "demo.old", "--manifest", manifest}, 3});

    Child hello(HELLO, {});
    waitUntilServed("demo.hello");
    expect({"no-callback", {"doctor", "demo.hello"}, 1});
    expect({"", {"list"}, 0});
    hello.signal(SIGSTOP);
    expect({"main-loop-stuck", {"state", "demo.hello", "--timeout", "0.1"}, 4});
    expect({"main-loop-stuck", {"doctor", "demo.hello", "--timeout", "0.1"}, 4});
    hello.signal(SIGCONT);
    const std::string elsewhere = std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/b");
    std::filesystem::create_directory(elsewhere);
    setenv("NELVO_HOST_RUNTIME_DIR", elsewhere.c_str(), 1);
    expect({"runtime-directory", {"list"}, 3});
    std::filesystem::permissions(elsewhere, std::filesystem::perms::owner_all);
    expect({"other-directory", {"state", "demo.hello"}, 3});
}

TEST_F(NelvoctlTest, SaysWhenItsOutputIsLost) {
    Child full("/bin/sh", {"-c", NELVOCTL " list --json >/dev/full"});
    EXPECT_EQ(full.wait(), 1);
    EXPECT_NE(full.err().find("output: could not write to stdout"), std::string::npos)
        << full.err();
}

TEST_F(NelvoctlTest, TellsAnotherUsersApplicationApart) {
    Child hello(HELLO, {});
    waitUntilServed("demo.hello");
    testing::internal::CaptureStdout();
    const pid_t child = fork();
    if (child == 0) {
        isPeerAnotherUser = true;
        const char *arguments[] = {"nelvoctl", "--json", "state", "demo.hello"};
        _exit(nelvoctl::run(static_cast<int>(std::size(arguments)), arguments));
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 3);
    expectJson({"other-user", {}, 3}, testing::internal::GetCapturedStdout());
}

std::string contentOf(const std::string &path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

TEST_F(NelvoctlTest, TracesEachRequestOfAnApplication) {
    const std::string file = std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/trace.json");
    Child trace(NELVOCTL, {"trace", "--json", "--chrome", file, "--", HELLO});
    waitUntilServed("demo.hello"); // a state request, for which there is no callback
    Child shell("/bin/sh", {"-c", "printf 'greet Ann\n.state\nsing\n' | " NELVOCTL
                                  " shell demo.hello --json"});
    EXPECT_EQ(shell.wait(), 1); // the worst of the three
    trace.signal(SIGTERM);
    EXPECT_EQ(trace.wait(), 0) << trace.err();
    std::istringstream lines(trace.out());
    std::vector<std::string> seen;
    for (std::string line; std::getline(lines, line);) {
        const json request = json::parse(line);
        seen.push_back(request["actionId"].get<std::string>() + " " +
                       request["outcome"].get<std::string>());
        if (request["outcome"] == "answered") {
            EXPECT_LE(request["callbackMilliseconds"], request["completedMilliseconds"]);
            EXPECT_LE(request["completedMilliseconds"], request["endedMilliseconds"]);
        }
    }
    EXPECT_EQ(seen, (Arguments{"getAppContext no callback", "greet answered",
                               "getAppContext no callback", "? no callback"}));
    EXPECT_GE(json::parse(contentOf(file))["traceEvents"].size(), 4u);
}

TEST_F(NelvoctlTest, HasNoCauseThatTheManualLeavesOut) {
    std::istringstream table(nelvoctl::exitCodeTable());
    std::string line, code, name;
    std::getline(table, line); // the heading
    std::getline(table, line); // success
    while (std::getline(table, line)) {
        std::istringstream(line) >> code >> name;
        EXPECT_NE(contentOf(SOURCES "/nelvoctl.1").find(".It " + code + " Ta " + name + " Ta "),
                  std::string::npos)
            << line;
    }
    EXPECT_EQ(name, "superseded");
}

TEST_F(NelvoctlTest, CompletesTheIdsOfRunningApplications) {
    Child hello(HELLO, {});
    waitUntilServed("demo.hello");
    Child bash("/bin/bash",
               {"-c", "source " SOURCES "/completions/nelvoctl.bash; COMP_WORDS=(" NELVOCTL
                      " state --timeout 3 demo.h); COMP_CWORD=4; _nelvoctl; "
                      "echo ${COMPREPLY[*]}"});
    EXPECT_EQ(bash.wait(), 0) << bash.err();
    EXPECT_EQ(bash.out(), "demo.hello\n");
}

TEST(OutputTest, LetsNothingReachATerminalThatItCouldObey) {
    std::setlocale(LC_CTYPE, "C.UTF-8");
    const std::pair<std::string, std::string> rows[] = {
        {"plain \u00e9\u20ac\U0001f600", "plain \u00e9\u20ac\U0001f600"},
        {"\x1b[2J\x07\x7f", "\\x1b[2J\\x07\\x7f"},
        {"a\nb\tc", "a\\nb\\tc"},
        {"C1 \xc2\x9b", "C1 \\xc2\\x9b"},
        {std::string("zero \0.", 7), "zero \\x00."},
        {"not UTF-8 \xff\xc3", "not UTF-8 \\xff\\xc3"},
    };
    for (const auto &[text, shown] : rows)
        EXPECT_EQ(nelvoctl::printable(text), shown);
}

} // namespace

// Stands before the C library's own: another user is not to be had without being root.
extern "C" __attribute__((visibility("default"))) int
getsockopt(int socket, int level, int name, void *value, socklen_t *size) noexcept {
    using Get = int (*)(int, int, int, void *, socklen_t *);
    static const auto real = reinterpret_cast<Get>(dlsym(RTLD_NEXT, "getsockopt"));
    const int result = real(socket, level, name, value, size);
    if (isPeerAnotherUser && level == SOL_SOCKET && name == SO_PEERCRED)
        ++static_cast<ucred *>(value)->uid;
    return result;
}
