// SPDX-License-Identifier: Apache-2.0
#include <rpc-port.h>

#include <algorithm>
#include <memory>
#include <vector>

#include <unistd.h>

#include <Ecore.h>

#include <host/sim.h>

#include <gtest/gtest.h>

#include "allocation_faults.h"
#include "rpc_peers.h"

namespace {

using namespace nelvo::testkit::peers;

class RpcPortTest : public testing::Test {
protected:
    RpcPortTest() {
        host_sim_start();
        host_sim_set_manifest("<manifest><ui-application appid=\"demo.app\"/></manifest>");
    }
    // A client that has been told to connect; its server hears of it with the next news().
    static std::unique_ptr<Client> connecting(const std::string &sender) {
        auto made = std::make_unique<Client>();
        host_sim_set_sender(made->handle, sender.c_str());
        EXPECT_EQ(made->connect(), RPC_PORT_ERROR_NONE);
        return made;
    }
    void start() {
        server = nullptr; // first: it serves the same port
        server = std::make_unique<Server>();
        client = connecting("c");
    }
    // What has come since the last time.
    static std::string news(Peer &peer) {
        host_sim_advance(0);
        return std::exchange(peer.events, "");
    }

    std::unique_ptr<Server> server = nullptr;
    std::unique_ptr<Client> client = nullptr;
};

TEST_F(RpcPortTest, DeliversWhatIsSentAndOneEndOfTheConnection) {
    const auto take = [&](rpc_port_h port) { return server->note(takeText(port)), 0; };
    const auto takeTwice = [&](rpc_port_h port) { return take(port), take(port); };
    const auto answerFirst = [&](rpc_port_h port) { return sendText(port, "!"), take(port); };
    const auto leave = [&](rpc_port_h) { return server->note("got"), 0; };
    const auto refuse = [&](rpc_port_h port) {
        return take(port), server->events == "+c 1 " ? -5 : 0;
    };
    const auto answer = [&](rpc_port_h port) {
        return sendText(server->callbackPort(), "now") + sendText(port, "re:" + takeText(port));
    };
    const auto waitInside = [&](rpc_port_h port) {
        host_sim_advance(0);
        EXPECT_EQ(sendText(port, "late"), RPC_PORT_ERROR_IO_ERROR);
        return take(port), 1; // its own parcel; and the connection has ended already
    };
    const auto loopInside = [&](rpc_port_h port) {
        take(port);
        for (int i = 0; i < 9; ++i)
            ecore_main_loop_iterate();
        return server->note("end"), 0;
    };
    const struct {
        const char *what;
        std::function<int(rpc_port_h)> onReceived;
        const char *script; // of peers::play()
        const char *serverHears, *clientHears;
        const char *fatal = ""; // an event in which its hearer is destroyed, and a second one comes
    } rows[] = {
        {"in order", take, "1a2b.3c.", "+c 1 2 3 ", "connected a b c "},
        {"the client's last words", take, "ab12C.", "+c 1 2 -c ", "connected "},
        {"the server's last words", take, "12abcS.", "+c ", "connected a b c disconnected "},
        {"last words, answered", answerFirst, "12C.", "+c 1 2 -c ", "connected "},
        {"last words, interrupted", take, "abS1.", "+c ", "connected a b disconnected "},
        {"taken twice", takeTwice, "1.2.", "+c 1 (none) 2 (none) ", "connected "},
        {"not taken", leave, "12.", "+c got got ", "connected "},
        {"a refusal", refuse, "12.R.3.", "+c 1 -c +c 3 ", "connected disconnected connected "},
        {"calls", answer, "1T2T3.TT", "+c ", "connected now re:1 now re:2 now re:3 (none) "},
        {"an answer left behind", answer, "1.S.", "+c ", "connected now disconnected "},
        {"rounds inside", waitInside, "123C.", "+c -c 3 2 1 ", "connected "},
        {"a loop inside", loopInside, "123C.", "+c 1 end 2 end 3 end -c ", "connected "},
        {"destroyed", take, "1.", "+c ", "rejected rejected ", "+c"},
        {"destroyed", take, "12.", "+c +c 1 ", "connected connected disconnected disconnected ",
         "1"},
        {"destroyed", take, "1C.", "+c +c 1 (none) -c ", "connected connected ", "-c"},
        {"destroyed", take, "ab.", "+c +c -c -c ", "connected ", "connected"},
        {"destroyed", take, "ab.", "+c +c -c -c ", "connected connected a ", "a"},
        {"destroyed", take, "S.", "+c +c ", "connected connected disconnected ", "disconnected"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.what) + " " + row.fatal);
        start();
        std::unique_ptr<Server> next;
        server->onReceived = row.onReceived;
        server->onEvent = [&](const std::string &event) {
            if (event == row.fatal) {
                server->destroy();
                next = std::make_unique<Server>(); // on the same port
                EXPECT_EQ(next->listened, RPC_PORT_ERROR_NONE);
                host_sim_advance(0);
            }
        };
        client->onEvent = [&](const std::string &event) {
            if (event == row.fatal) {
                client->destroy();
                host_sim_advance(0);
            }
        };
        if (*row.fatal)
            server->addCallbacks(), client->addCallbacks();
        play("." + std::string(row.script), *server, *client, [] { host_sim_advance(0); });
        EXPECT_EQ(takeText(server->port()), "(none)");
        EXPECT_EQ(takeText(client->callbackPort()), "(none)");
        EXPECT_EQ(row.serverHears, server->events);
        EXPECT_EQ(row.clientHears, client->events);
    }
    server = nullptr;
    client = nullptr;
    EXPECT_EQ(host_sim_timer_count(), 0);
}

TEST_F(RpcPortTest, NestsTheEventsOfManyConnectionsOnlySoDeep) {
    start();
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 40; ++i) {
        clients.push_back(connecting("c"));
        news(*server);
    }
    int depth = 0, deepest = 0, calls = 0;
    server->onReceived = [&](rpc_port_h port) {
        deepest = std::max(deepest, ++depth);
        for (int i = 0; i < 9; ++i)
            ecore_main_loop_iterate();
        --depth;
        return ++calls, takeText(port) == "x" ? 0 : -1;
    };
    for (int round = 1; round <= 2; ++round) {
        for (const auto &each : clients)
            EXPECT_EQ(sendText(each->port(), "x") + sendText(each->port(), "x"), 0);
        host_sim_advance(0);
        EXPECT_EQ(deepest, 16);
        EXPECT_EQ(calls, round * 80);
    }
    clients.clear();
    host_sim_advance(1); // would never return if a closed socket kept the loop busy
    EXPECT_EQ(server->port(), nullptr);
}

TEST_F(RpcPortTest, DeliversFramesOfAnySizeUpToTheLimitWholeAndInOrder) {
    start();
    const std::size_t limit = (16 << 20) - 5; // of a text
    std::string sent;
    server->onEvent = [&](const std::string &event) {
        if (event == "+c") // the client hears it when it knows that it is connected
            sendText(server->callbackPort(), "early");
    };
    host_sim_advance(0);
    const std::size_t sizes[] = {0, 1, 70'000, 200, limit, 262'135, 262'139, 3};
    for (const std::size_t size : sizes) {
        const std::string text(size, static_cast<char>('a' + size % 26));
        sent += text + " ";
        sendText(client->port(), text);
        sendText(server->callbackPort(), text);
        for (int rounds = size < limit ? 1 : 100; rounds > 0; --rounds)
            ecore_main_loop_iterate(); // makes room in a socket while there is a queue for it
    }
    EXPECT_EQ(RPC_PORT_ERROR_INVALID_PARAMETER,
              sendText(client->port(), std::string(limit + 1, 'x')));
    EXPECT_TRUE("+c " + sent == news(*server));
    EXPECT_TRUE("connected early " + sent == news(*client));
}

TEST_F(RpcPortTest, EndsTheConnectionOfAClientThatDoesNotReadOutsideTheSend) {
    start();
    const auto other = connecting("other");
    EXPECT_EQ(news(*server), "+c +other ");
    const rpc_port_h port = server->port();
    for (int sent = 0; sent < 4; ++sent) // 32 MiB may wait
        EXPECT_EQ(sent < 2 ? RPC_PORT_ERROR_NONE : RPC_PORT_ERROR_IO_ERROR,
                  sendText(port, std::string(12'000'000, 'x')));
    EXPECT_EQ(server->events, "");
    EXPECT_EQ(news(*server), "-other ");
    EXPECT_EQ(news(*other), "connected disconnected ");
    EXPECT_EQ(news(*client), "connected ");
    EXPECT_EQ(sendText(port, "stale"), RPC_PORT_ERROR_INVALID_PARAMETER);
}

TEST_F(RpcPortTest, RefusesWrongNamesAndHandles) {
    start();
    EXPECT_EQ(news(*server), "+c ");
    rpc_port_h port = nullptr;
    rpc_port_stub_h const gone = server->handle;
    const int results[] = {
        rpc_port_stub_create(&port, "a/b"),
        Client().connect(".."),
        client->connect(),
        rpc_port_stub_listen(server->handle),
        rpc_port_stub_listen(client->handle),
        rpc_port_stub_get_port(server->handle, RPC_PORT_PORT_MAIN, "unknown", &port),
        sendText(server->handle, "x"),
        server->destroy() + rpc_port_stub_destroy(gone),
    };
    for (std::size_t i = 0; i < std::size(results); ++i)
        EXPECT_EQ(RPC_PORT_ERROR_INVALID_PARAMETER, results[i]) << "call " << i;
    EXPECT_EQ(Client().connect("unserved"), RPC_PORT_ERROR_IO_ERROR);
    start();
    EXPECT_EQ(Server().listened, RPC_PORT_ERROR_IO_ERROR);
    for (const auto &sender : {std::string("../a"), std::string("a\x1b"), std::string(999, 'a')})
        EXPECT_EQ("rejected ", news(*connecting(sender))) << sender;
    const auto refused = connecting("-");
    refused->addCallbacks(); // the second one is not called any more
    refused->onEvent = [&](const std::string &) { refused->destroy(); };
    EXPECT_EQ(news(*refused), "rejected ");
    host_sim_set_manifest(nullptr);
    EXPECT_EQ(Server("other").listened, RPC_PORT_ERROR_IO_ERROR);
    EXPECT_EQ(Client().connect(), RPC_PORT_ERROR_IO_ERROR);
}

TEST_F(RpcPortTest, LosesNoMoreThanTheConnectionThatRunsOutOfMemory) {
    using namespace nelvo::testkit;
    start();
    EXPECT_EQ(news(*server), "+c ");
    Server own("echo");
    own.onReceived = [](rpc_port_h port) { return sendText(port, takeText(port)); };
    const std::string text(300'000, 'x');
    const auto firstFree = [] {
        const int fd = dup(0);
        return close(fd), fd;
    };
    const int before = firstFree();
    int nth = 0;
    for (bool failed = true; failed;) {
        SCOPED_TRACE(++nth);
        Client other;
        std::string reply;
        failAllocation(nth);
        try {
            other.connect("echo");
            host_sim_advance(0);
            sendText(other.port(), text);
            reply = takeText(other.port());
        } catch (const std::bad_alloc &) {
            reply = ""; // it was ours
        }
        failed = stopFailingAllocations() > 0;
        EXPECT_TRUE(failed || reply == text);
        other.destroy();
        host_sim_advance(6); // a client that is only half there goes with time
        EXPECT_EQ(nullptr, own.port());
        sendText(client->port(), "still there");
        EXPECT_EQ(news(*server), "still there ");
    }
    EXPECT_LT(20, nth);
    EXPECT_EQ(before, firstFree()); // no descriptor was left behind
}

} // namespace
