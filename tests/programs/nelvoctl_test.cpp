// SPDX-License-Identifier: Apache-2.0
// nelvoctl inside a simulated device, beside the application: its causes that need time or faults.
#include <clocale>
#include <cstdlib>
#include <sstream>

#include <dlfcn.h>
#include <sys/socket.h>
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

struct Row {
    const char *cause; // "" stands for success
    std::vector<const char *> arguments;
    int exitCode;
    void (*before)() = [] {};
};

// What the system says to this process.
bool isPeerAnotherUser = false;
int connectError = 0;
int failedConnects = 0; // how many are still to come

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

int run(std::vector<const char *> arguments, bool withJson) {
    arguments.insert(arguments.begin(), "nelvoctl");
    if (withJson)
        arguments.push_back("--json");
    return nelvoctl::run(static_cast<int>(arguments.size()), arguments.data());
}

int runSimulated(const Row &row, bool withJson) {
    Simulation simulation;
    device = &simulation;
    Callback now, never, stop;
    ecore_init();
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
    return run(row.arguments, withJson);
}

// Everything under --json is JSON; a success holds no error, a failure names its cause.
void expectJson(const Row &row, const std::string &out) {
    json document;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        document = json::parse(line, nullptr, false);
        ASSERT_TRUE(document.is_object()) << line;
    }
    const json error = document.value("error", json::object());
    EXPECT_EQ(error.value("cause", ""), row.cause) << out;
    EXPECT_EQ(error.value("exitCode", 0), row.exitCode);
}

TEST(NelvoctlTest, NamesTheCauseOfEverySilence) {
    for (const Row &row : SIMULATED) {
        SCOPED_TRACE(std::string(row.cause) + ": " + testing::PrintToString(row.arguments));
        Child plain([&] { return runSimulated(row, false); }); // one platform per process
        EXPECT_EQ(plain.wait(), row.exitCode) << plain.err();
        const std::string said = row.exitCode != 0 ? row.cause + std::string(": ") : "";
        EXPECT_NE((plain.out() + plain.err()).find(said), std::string::npos) << plain.err();
        Child withJson([&] { return runSimulated(row, true); });
        EXPECT_EQ(withJson.wait(), row.exitCode);
        expectJson(row, withJson.out());
    }
}

TEST(NelvoctlTest, TellsWhoIsToBlameForAFailedConnection) {
    const struct {
        bool isPeerAnotherUser;
        int connectError, times;
        Row wanted;
    } rows[] = {{true, 0, 0, {"other-user", {}, 3}},
                {false, EINTR, 1, {"no-callback", {}, 1}}, // hello has no state
                {false, EAGAIN, 2, {"no-callback", {}, 1}},
                {false, EAGAIN, 1000, {"main-loop-stuck", {}, 4}},
                {false, ENOMEM, 1, {"internal", {}, 3}}};
    char folder[] = "ctl-XXXXXX";
    ASSERT_NE(mkdtemp(folder), nullptr);
    setenv("NELVO_HOST_RUNTIME_DIR", folder, 1);
    const Child hello(HELLO, {});
    Child([] { return run({"call", "demo.hello", "greet", "--wait", "20"}, true); }).wait();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.wanted.cause);
        Child client([&] {
            isPeerAnotherUser = row.isPeerAnotherUser;
            connectError = row.connectError;
            failedConnects = row.times;
            return run({"state", "demo.hello", "--timeout", "0.2"}, true);
        });
        EXPECT_EQ(client.wait(), row.wanted.exitCode);
        expectJson(row.wanted, client.out());
    }
    EXPECT_EQ(std::system(("rm -r " + std::string(folder)).c_str()), 0);
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

// These stand before the C library's own: only the superuser could run a process of another user, and
// only a busy system fills a backlog.
extern "C" __attribute__((visibility("default"))) int
getsockopt(int socket, int level, int name, void *value, socklen_t *size) noexcept {
    using Get = int (*)(int, int, int, void *, socklen_t *);
    static const auto real = reinterpret_cast<Get>(dlsym(RTLD_NEXT, "getsockopt"));
    const int result = real(socket, level, name, value, size);
    if (isPeerAnotherUser && level == SOL_SOCKET && name == SO_PEERCRED)
        ++static_cast<ucred *>(value)->uid;
    return result;
}

extern "C" __attribute__((visibility("default"))) int connect(int socket, const sockaddr *address,
                                                              socklen_t size) {
    using Connect = int (*)(int, const sockaddr *, socklen_t);
    static const auto real = reinterpret_cast<Connect>(dlsym(RTLD_NEXT, "connect"));
    if (failedConnects <= 0)
        return real(socket, address, size);
    --failedConnects;
    errno = connectError;
    return -1;
}
