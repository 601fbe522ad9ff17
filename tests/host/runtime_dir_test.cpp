// SPDX-License-Identifier: Apache-2.0
// The transport between processes: its sockets in the file system.
#include <rpc-port.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <Ecore.h>

#include <host/log.h>
#include <host/runtime_dir.h>

#include "child.h"
#include "raw_client.h"
#include "rpc_peers.h"

namespace {

using namespace nelvo::testkit;
using namespace nelvo::testkit::wire;
using peers::Client;
using peers::sendText;
using peers::Server;
using peers::takeText;

// Each case has a runtime directory of its own.
class RuntimeDirTest : public testing::Test {
protected:
    RuntimeDirTest() {
        char name[] = "runtime_dir_test.XXXXXX";
        base = mkdtemp(name);
        use(base + "/run");
        setenv("NELVO_HOST_APP_ID", "demo.app", 1);
        const auto keep = [](log_priority, const char *, const char *text, void *data) {
            *static_cast<std::string *>(data) += std::string(text) + "\n";
        };
        host_log_set_sink(keep, &log);
    }
    ~RuntimeDirTest() override {
        host_log_set_sink(nullptr, nullptr);
        EXPECT_EQ(std::system(("chmod -R u+rwx " + base + " && rm -rf " + base).c_str()), 0);
    }
    void use(const std::string &dir) {
        path = dir + "/demo.app:message";
        setenv("NELVO_HOST_RUNTIME_DIR", dir.c_str(), 1);
    }
    bool logged(const std::string &text) const { return log.find(text) != std::string::npos; }

    std::string base, path, log;
};

TEST(RuntimeDirRule, ChoosesTheDirectoryFromAnyEnvironment) {
    using Environment = std::map<std::string, std::string>;
    const std::pair<Environment, std::string> rows[] = {
        {{{"NELVO_HOST_RUNTIME_DIR", "own//"}, {"XDG_RUNTIME_DIR", "/users"}}, "own"},
        {{{"NELVO_HOST_RUNTIME_DIR", "/"}}, "/"},
        {{{"NELVO_HOST_RUNTIME_DIR", ""}, {"XDG_RUNTIME_DIR", "/users"}}, "/users/nelvo"},
        {{{"XDG_RUNTIME_DIR", ""}}, "/tmp/nelvo-" + std::to_string(geteuid())},
        {{}, "/tmp/nelvo-" + std::to_string(geteuid())},
    };
    const auto lookUp = [](const char *name, void *data) -> const char * {
        const auto &environment = *static_cast<const Environment *>(data);
        const auto found = environment.find(name);
        return found != environment.end() ? found->second.c_str() : nullptr;
    };
    for (auto [environment, expected] : rows) {
        const std::unique_ptr<char, void (*)(void *)> dir(host_runtime_dir(lookUp, &environment),
                                                          std::free);
        EXPECT_STREQ(dir.get(), expected.c_str());
    }
}

TEST_F(RuntimeDirTest, TakesOverWhatADeadServerLeftAndNothingElse) {
    const auto refusal = [&](const char *port = "message") {
        log.clear();
        return Server(port).listened == RPC_PORT_ERROR_NONE ? "listens" : log;
    };
    const auto exists = [&] { return access(path.c_str(), F_OK) == 0; };
    Server first;
    struct stat state {};
    stat((base + "/run").c_str(), &state);
    EXPECT_EQ(state.st_mode, mode_t{S_IFDIR | 0700});
    const std::string mine = "served already, by process " + std::to_string(getpid());
    EXPECT_NE(refusal().find(mine), std::string::npos);
    // A lock alone is enough, and without its lock file a server is still found by asking it.
    const int lock = open((path + "2.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(flock(lock, LOCK_EX), 0);
    EXPECT_NE(refusal("message2"), "listens");
    close(lock);
    EXPECT_EQ(refusal("message2"), "listens");
    EXPECT_EQ(unlink((path + ".lock").c_str()), 0);
    EXPECT_NE(refusal().find(mine), std::string::npos);
    EXPECT_TRUE(exists());
    first.destroy();
    EXPECT_FALSE(exists());
    const auto serveAndDie = [] {
        Server dying;
        _exit(-dying.listened);
    };
    EXPECT_EXIT(serveAndDie(), testing::ExitedWithCode(0), "");
    EXPECT_TRUE(exists());
    EXPECT_EQ(Client().connect(), RPC_PORT_ERROR_IO_ERROR);
    EXPECT_EQ(refusal(), "listens");
    // A server that accepts nobody, and whose queue of clients is full.
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int busy = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(busy, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    EXPECT_EQ(::listen(busy, 0), 0);
    const RawSocket waiting(path);
    EXPECT_NE(refusal().find("served already"), std::string::npos);
    close(busy);
    EXPECT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_NE(refusal().find("no socket"), std::string::npos);
    EXPECT_TRUE(exists());
}

// A forked child has its own copies of the stub and of the main loop.
TEST_F(RuntimeDirTest, LeavesItsPortToTheParentAfterFork) {
    Server server;
    Client client;
    const auto events = [&] {
        for (int i = 0; i < 20; ++i)
            ecore_main_loop_iterate();
        return std::exchange(server.events, "");
    };
    EXPECT_EQ(client.connect(), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(events(), "+demo.app ");
    Child ending([&] { return server.destroy() + client.destroy(); });
    EXPECT_EQ(ending.wait(), 0);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    sendText(client.port(), "still there");
    EXPECT_EQ(Client().connect(), RPC_PORT_ERROR_NONE);
    EXPECT_EQ(events(), "still there ");
    const Child living([] { return pause(); });
    server.destroy();
    EXPECT_EQ(Server().listened, RPC_PORT_ERROR_NONE);
    Child serving([] { return Server().listened; });
    EXPECT_EQ(serving.wait(), 0);
}

TEST_F(RuntimeDirTest, ServesClientsOfOtherProcesses) {
    const std::string large(3'000'000, 'r');
    const Child child([&] {
        Server server;
        server.onReceived = [&](rpc_port_h port) {
            return sendText(server.callbackPort(), "event") + sendText(port, takeText(port));
        };
        ecore_main_loop_begin();
        return 1;
    });
    Client client;
    client.onEvent = [](const std::string &) { ecore_main_loop_quit(); };
    while (client.connect() != RPC_PORT_ERROR_NONE)
        sched_yield(); // the child does not listen yet
    ecore_main_loop_begin();
    for (const std::string &text : {std::string("call"), large}) {
        sendText(client.port(), text);
        EXPECT_TRUE(takeText(client.port()) == text);
    }
    child.signal(SIGKILL);
    EXPECT_EQ(takeText(client.port()), "(none)");
    EXPECT_EQ(client.events, "connected ") << "no event is delivered inside the wait";
    while (client.port())
        ecore_main_loop_begin();
    EXPECT_EQ(client.events, "connected event event disconnected ");
}

} // namespace
