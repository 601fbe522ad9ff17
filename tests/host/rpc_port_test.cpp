// SPDX-License-Identifier: Apache-2.0
#include <rpc-port.h>

#include <memory>

#include <unistd.h>

#include <host/sim.h>

#include "failing_allocations.h"
#include "rpc_peers.h"

namespace {

using Events = std::vector<std::string>;

class RpcPortTest : public testing::Test {
protected:
    RpcPortTest() {
        host_sim_start();
        host_sim_set_manifest("<manifest><ui-application appid=\"demo.app\"/></manifest>");
        server = std::make_unique<Server>();
        client = connectedClient("demo.client");
    }

    std::unique_ptr<Client> connectedClient(const char *sender) {
        auto made = std::make_unique<Client>();
        host_sim_set_sender(made->handle, sender);
        EXPECT_EQ(RPC_PORT_ERROR_NONE, made->connect());
        host_sim_advance(0);
        return made;
    }

    // Without what the fixture itself has caused.
    Events serverEvents() const { return Events(server->events.begin() + 1, server->events.end()); }
    Events clientEvents() const { return Events(client->events.begin() + 1, client->events.end()); }

    std::unique_ptr<Server> server;
    std::unique_ptr<Client> client;
};

TEST_F(RpcPortTest, TellsBothSidesOfAConnectionAndOfItsEnd) {
    const auto other = connectedClient("demo.client");
    EXPECT_EQ((Events{"+demo.client", "+demo.client"}), server->events);
    EXPECT_NE(server->instances[0], server->instances[1]);
    EXPECT_EQ(Events{"connected"}, client->events);
    client->destroy();
    host_sim_advance(0);
    EXPECT_EQ((Events{"+demo.client", "-demo.client"}), serverEvents());
    EXPECT_EQ(Events{"connected"}, client->events);
    server->destroy();
    host_sim_advance(0);
    EXPECT_EQ((Events{"connected", "disconnected"}), other->events);
    EXPECT_EQ((Events{"+demo.client", "-demo.client"}), serverEvents());
    EXPECT_EQ(nullptr, other->mainPort());
    EXPECT_EQ(0, host_sim_timer_count());
}

TEST_F(RpcPortTest, AnswersACallWhileTheClientWaits) {
    server->onReceived = [&](rpc_port_h port) {
        sendText(server->lastPort(RPC_PORT_PORT_CALLBACK), "progress");
        return sendText(port, "re: " + takeText(port));
    };
    for (const char *call : {"one", "two"}) {
        sendText(client->mainPort(), call);
        EXPECT_EQ(std::string("re: ") + call, takeText(client->mainPort()));
    }
    EXPECT_EQ("(none)", takeText(client->mainPort()));
    EXPECT_EQ((Events{"progress", "progress"}), clientEvents());
    sendText(client->mainPort(), "three");
    host_sim_advance(0); // the reply is kept for whoever asks later
    EXPECT_EQ("re: three", takeText(client->mainPort()));
}

TEST_F(RpcPortTest, DeliversFramesOfAnySizeWholeAndInOrder) {
    Events sent;
    for (const std::size_t size : {0U, 1U, 70'000U, 200U, 5'000'000U, 65'531U, 65'536U, 3U}) {
        sent.push_back(std::string(size, static_cast<char>('a' + sent.size())));
        sendText(client->mainPort(), sent.back());
        sendText(server->lastPort(RPC_PORT_PORT_CALLBACK), sent.back());
    }
    host_sim_advance(0);
    EXPECT_TRUE(sent == serverEvents());
    EXPECT_TRUE(sent == clientEvents());
}

TEST_F(RpcPortTest, DropsAParcelThatIsNotTaken) {
    server->onReceived = [&](rpc_port_h) { return 0; };
    sendText(client->mainPort(), "one");
    host_sim_advance(0);
    server->onReceived = [&](rpc_port_h port) {
        server->events.push_back(takeText(port));
        server->events.push_back(takeText(port));
        return 0;
    };
    sendText(client->mainPort(), "two");
    host_sim_advance(0);
    EXPECT_EQ((Events{"two", "(none)"}), serverEvents());
    EXPECT_EQ("(none)", takeText(server->lastPort(RPC_PORT_PORT_MAIN)));
    EXPECT_EQ("(none)", takeText(client->port(RPC_PORT_PORT_CALLBACK)));
}

TEST_F(RpcPortTest, GivesARoundInsideACallbackTheNextFrameAndTheEndOfTheSameConnection) {
    const std::string instance = server->instances.back();
    server->onReceived = [&](rpc_port_h port) {
        host_sim_advance(0);
        server->events.push_back(takeText(port)); // its own one, not an inner one's
        EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, sendText(port, "late"));
        return 1; // the connection has ended already: no second event
    };
    for (const char *text : {"one", "two", "three"}) {
        sendText(client->mainPort(), text);
    }
    client->destroy();
    host_sim_advance(0);
    // The innermost callback has not returned when the end comes, and a late parcel cannot be
    // taken.
    EXPECT_EQ((Events{"-demo.client", "three", "two", "one"}), serverEvents());
    EXPECT_EQ(nullptr, server->port(RPC_PORT_PORT_MAIN, instance));
}

TEST_F(RpcPortTest, ServesWhatAClientSentBeforeItWent) {
    sendText(client->mainPort(), "one");
    sendText(client->mainPort(), "two");
    client->destroy();
    host_sim_advance(0);
    EXPECT_EQ((Events{"one", "two", "-demo.client"}), serverEvents());
    client = connectedClient("demo.client");
    for (const char *text : {"three", "four", "five"}) {
        sendText(server->lastPort(RPC_PORT_PORT_CALLBACK), text);
    }
    server->destroy();
    host_sim_advance(0);
    EXPECT_EQ((Events{"three", "four", "five", "disconnected"}), clientEvents());
}

TEST_F(RpcPortTest, EndsOnlyTheConnectionWhoseCallbackAnswersNonZero) {
    const auto other = connectedClient("other.client");
    server->onReceived = [&](rpc_port_h port) { return takeText(port) == "bad" ? -5 : 0; };
    sendText(client->mainPort(), "bad");
    sendText(client->mainPort(), "never seen");
    sendText(other->mainPort(), "good");
    host_sim_advance(0);
    EXPECT_EQ((Events{"+other.client", "-demo.client"}), serverEvents());
    EXPECT_EQ(Events{"disconnected"}, clientEvents());
    EXPECT_EQ(Events{"connected"}, other->events);
    EXPECT_EQ(RPC_PORT_ERROR_NONE, client->connect());
    host_sim_advance(0);
    EXPECT_EQ((Events{"disconnected", "connected"}), clientEvents());
}

TEST_F(RpcPortTest, EndsTheConnectionOfAClientThatDoesNotReadOutsideTheSend) {
    const rpc_port_h port = server->lastPort(RPC_PORT_PORT_MAIN);
    const std::string text(12'000'000, 'x');
    int sent = 0;
    while (sendText(port, text) == RPC_PORT_ERROR_NONE) {
        ASSERT_GT(5, ++sent);
    }
    EXPECT_LE(2, sent);
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, sendText(port, "more"));
    EXPECT_EQ(Events{}, serverEvents());
    host_sim_advance(0);
    EXPECT_EQ(Events{"-demo.client"}, serverEvents());
    EXPECT_EQ(Events{"disconnected"}, clientEvents());
    EXPECT_EQ(RPC_PORT_ERROR_INVALID_PARAMETER, sendText(port, "stale"));
}

TEST_F(RpcPortTest, RefusesAParcelBeyondTheLimitAndKeepsTheConnection) {
    EXPECT_EQ(RPC_PORT_ERROR_INVALID_PARAMETER,
              sendText(client->mainPort(), std::string(16 << 20, 'x')));
    EXPECT_EQ(RPC_PORT_ERROR_NONE, sendText(client->mainPort(), std::string((16 << 20) - 5, 'x')));
    host_sim_advance(0);
    ASSERT_EQ(1U, serverEvents().size());
    EXPECT_EQ(std::size_t{16 << 20} - 5, serverEvents()[0].size());
}

TEST_F(RpcPortTest, SurvivesTheDestructionOfAStubInsideItsEvents) {
    const struct {
        const char *when;
        std::function<void(Server &, std::function<void()>)> arrange;
        Events clientSees;
    } rows[] = {
        {"connected", [](Server &at, auto act) { at.onConnected = act; }, {"rejected"}},
        {"received",
         [](Server &at, auto act) {
             at.onReceived = [=](rpc_port_h port) {
                 return act(), takeText(port) == "call" ? 0 : 1;
             };
         },
         {"connected", "disconnected"}},
        {"disconnected", [](Server &at, auto act) { at.onDisconnected = act; }, {"connected"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.when);
        server = nullptr;
        server = std::make_unique<Server>();
        std::unique_ptr<Server> next;
        bool gone = false;
        const auto later = [](const char *, const char *, void *data) {
            EXPECT_FALSE(*static_cast<bool *>(data)); // the second callback of each kind
        };
        rpc_port_stub_add_connected_event_cb(server->handle, later, &gone);
        rpc_port_stub_add_disconnected_event_cb(server->handle, later, &gone);
        rpc_port_stub_add_received_event_cb(
            server->handle,
            [](const char *, const char *, rpc_port_h, void *data) {
                EXPECT_FALSE(*static_cast<bool *>(data));
                return 0;
            },
            &gone);
        row.arrange(*server, [&] {
            server->destroy();
            gone = true;
            next = std::make_unique<Server>(); // on the same port
            EXPECT_EQ(RPC_PORT_ERROR_NONE, next->listened);
            host_sim_advance(0);
        });
        auto other = connectedClient("demo.client");
        if (rpc_port_h port = other->mainPort()) {
            sendText(port, "call");
            sendText(port, "another");
        }
        host_sim_advance(0);
        if (row.when == std::string("disconnected")) {
            other->destroy();
            host_sim_advance(0);
        }
        EXPECT_EQ(row.clientSees, other->events);
        ASSERT_NE(nullptr, next);
        EXPECT_EQ(Events{"connected"}, connectedClient("demo.client")->events);
        EXPECT_EQ(Events{"+demo.client"}, next->events);
    }
}

TEST_F(RpcPortTest, SurvivesTheDestructionOfAProxyInsideItsEvents) {
    const struct {
        const char *when;
        const char *sender;
    } rows[] = {
        {"connected", "demo.client"},
        {"hello", "demo.client"},
        {"disconnected", "demo.client"},
        {"rejected", "not a name"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.when);
        Server own("own");
        Client other;
        host_sim_set_sender(other.handle, row.sender);
        other.onEvent = [&](const std::string &event) {
            if (event == row.when) {
                other.destroy();
                host_sim_advance(0);
            }
        };
        other.connect("own");
        own.onConnected = [&] {
            sendText(own.lastPort(RPC_PORT_PORT_CALLBACK), "hello");
            sendText(own.lastPort(RPC_PORT_PORT_CALLBACK), "again");
        };
        host_sim_advance(0);
        own.destroy();
        host_sim_advance(0);
        ASSERT_FALSE(other.events.empty());
        EXPECT_EQ(row.when, other.events.back());
    }
}

TEST_F(RpcPortTest, RejectsASenderThatIsNoName) {
    for (const std::string &sender :
         {std::string("a b"), std::string("../a"), std::string("-a"), std::string(128, 'a'),
          std::string(1000, 'a'), std::string("\x1b[1m")}) {
        SCOPED_TRACE(sender);
        EXPECT_EQ(Events{"rejected"}, connectedClient(sender.c_str())->events);
    }
    EXPECT_EQ(Events{"connected"}, connectedClient(std::string(127, 'a').c_str())->events);
    EXPECT_EQ(1U, serverEvents().size());
}

TEST_F(RpcPortTest, RefusesWrongArguments) {
    rpc_port_h port = nullptr;
    rpc_port_stub_h stub = nullptr;
    rpc_port_parcel_h parcel = nullptr;
    const char *const instance = server->instances.back().c_str();
    EXPECT_EQ(RPC_PORT_ERROR_NONE, rpc_port_parcel_create(&parcel));
    Server gone("gone");
    gone.destroy();
    const int refused[] = {
        rpc_port_stub_create(nullptr, "message"),
        rpc_port_stub_create(&stub, nullptr),
        rpc_port_stub_create(&stub, "a/b"),
        rpc_port_stub_listen(server->handle),
        rpc_port_stub_listen(client->handle),
        rpc_port_stub_listen(gone.handle),
        rpc_port_stub_destroy(gone.handle),
        rpc_port_stub_add_received_event_cb(server->handle, nullptr, nullptr),
        rpc_port_stub_get_port(server->handle, RPC_PORT_PORT_MAIN, "unknown", &port),
        rpc_port_stub_get_port(server->handle, RPC_PORT_PORT_MAIN, nullptr, &port),
        rpc_port_stub_get_port(server->handle, RPC_PORT_PORT_MAIN, instance, nullptr),
        rpc_port_proxy_create(nullptr),
        rpc_port_proxy_connect(client->handle, "demo.app", "message"),
        rpc_port_proxy_connect(gone.handle, "demo.app", "message"),
        Client().connect(".."),
        rpc_port_parcel_send(parcel, nullptr),
        rpc_port_parcel_send(parcel, server->handle),
        rpc_port_parcel_send(nullptr, client->mainPort()),
        rpc_port_parcel_create_from_port(nullptr, client->mainPort()),
        rpc_port_parcel_create_from_port(&parcel, nullptr),
    };
    for (std::size_t i = 0; i < std::size(refused); ++i) {
        EXPECT_EQ(RPC_PORT_ERROR_INVALID_PARAMETER, refused[i]) << "call " << i;
    }
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Client().connect("unserved"));
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Server().listened);
    EXPECT_EQ(Events{"connected"}, connectedClient("demo.client")->events);
    host_sim_set_manifest(nullptr);
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Server("other").listened);
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Client().connect());
    rpc_port_parcel_destroy(parcel);
}

// How many connections stand; the callbacks of a stub that allocates nothing of its own.
int standing = 0;
void countIn(const char *, const char *, void *) {
    ++standing;
}
void countOut(const char *, const char *, void *) {
    --standing;
}
int echo(const char *, const char *, rpc_port_h port, void *) {
    rpc_port_parcel_h parcel = nullptr;
    if (rpc_port_parcel_create_from_port(&parcel, port) == RPC_PORT_ERROR_NONE) {
        rpc_port_parcel_send(parcel, port);
        rpc_port_parcel_destroy(parcel);
    }
    return 0;
}

TEST_F(RpcPortTest, LosesNoMoreThanTheConnectionThatRunsOutOfMemory) {
    rpc_port_stub_h stub = nullptr;
    rpc_port_stub_create(&stub, "echo");
    rpc_port_stub_add_connected_event_cb(stub, countIn, nullptr);
    rpc_port_stub_add_disconnected_event_cb(stub, countOut, nullptr);
    rpc_port_stub_add_received_event_cb(stub, echo, nullptr);
    ASSERT_EQ(RPC_PORT_ERROR_NONE, rpc_port_stub_listen(stub));
    const int firstFree = dup(0);
    close(firstFree);
    rpc_port_parcel_h parcel = nullptr;
    rpc_port_parcel_create(&parcel);
    rpc_port_parcel_write_string(parcel, std::string(300'000, 'x').c_str());
    int failed = 0;
    for (bool hasFailed = true; hasFailed; ++failed) {
        SCOPED_TRACE(failed);
        rpc_port_proxy_h proxy = nullptr;
        rpc_port_proxy_create(&proxy);
        rpc_port_h port = nullptr;
        rpc_port_parcel_h reply = nullptr;
        allocations::untilFailure = failed;
        rpc_port_proxy_connect(proxy, "demo.app", "echo");
        host_sim_advance(0);
        rpc_port_proxy_get_port(proxy, RPC_PORT_PORT_MAIN, &port);
        rpc_port_parcel_send(parcel, port);
        const int result = rpc_port_parcel_create_from_port(&reply, port);
        hasFailed = allocations::untilFailure < 0;
        allocations::untilFailure = -1;
        EXPECT_EQ(result == RPC_PORT_ERROR_NONE, rpc_port_parcel_destroy(reply) == 0);
        EXPECT_TRUE(hasFailed || result == RPC_PORT_ERROR_NONE);
        rpc_port_proxy_destroy(proxy);
        host_sim_advance(6); // a client that is only half there goes with time
        EXPECT_EQ(0, standing);
        sendText(client->mainPort(), "still there");
        host_sim_advance(0);
        EXPECT_EQ("still there", server->events.back());
    }
    EXPECT_LT(20, failed);
    EXPECT_EQ(0, rpc_port_parcel_destroy(parcel));
    EXPECT_EQ(0, rpc_port_stub_destroy(stub));
    const int nextFree = dup(0);
    EXPECT_EQ(firstFree, nextFree); // no descriptor was left behind
    close(nextFree);
}

} // namespace
