// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <Ecore.h>
#include <rpc-port.h>

#include "channel.h"
#include "handshake.h"
#include "listeners.h"
#include "runtime_dir.h"
#include "unique_fd.h"

namespace host {

constexpr std::size_t MAX_CONNECTIONS = 4096;
constexpr std::size_t MAX_INCOMING = 64;
constexpr double HANDSHAKE_SECONDS = 5.0;
constexpr double ACCEPT_PAUSE_SECONDS = 0.1;
constexpr unsigned SPARE_DESCRIPTORS = 32;

class Stub;

// A socket that has been accepted and is no part of a connection yet: it has to say hello, and then
// to wait for its other half. Owned by its stub.
class Incoming : public ChannelOwner {
public:
    explicit Incoming(std::weak_ptr<Stub> stub) : _stub(std::move(stub)) {}
    ~Incoming() override;

    void start(const std::shared_ptr<Incoming> &self, UniqueFd socket);
    bool matches(const Incoming &other) const;
    const Hello &hello() const { return _hello; }
    std::shared_ptr<Channel> takeChannel() { return std::move(_channel); }

    const char *peer() const override { return "a client that has not said hello yet"; }
    void onFrame(Channel &channel) override;
    void onEnd(Channel &channel) override;

private:
    static Eina_Bool onTimeoutCb(void *data);

    std::weak_ptr<Stub> _stub;
    std::shared_ptr<Channel> _channel; // null once it is part of a connection
    void *_timer = nullptr;
    bool _greeted = false;
    Hello _hello{};
};

// A connection: two channels that ended up together. It ends once, whatever goes wrong first.
class Link : public ChannelOwner {
public:
    Link(std::weak_ptr<Stub> stub, std::string sender, std::string instance,
         std::shared_ptr<Channel> mainChannel, std::shared_ptr<Channel> callbackChannel);

    const char *sender() const { return _sender.c_str(); }
    const std::string &instance() const { return _instance; }
    Channel &channel(rpc_port_port_type_e type) {
        return type == RPC_PORT_PORT_MAIN ? *_main : *_callback;
    }
    bool hasEnded() const { return _ended; }

    // With the disconnected event; close() goes without.
    void end();
    void close();

    const char *peer() const override { return sender(); }
    void onFrame(Channel &channel) override;
    void onEnd(Channel &channel) override;

private:
    std::weak_ptr<Stub> _stub;
    const std::string _sender;
    const std::string _instance;
    std::shared_ptr<Channel> _main;
    std::shared_ptr<Channel> _callback;
    bool _ended = false;
};

// What stands behind an rpc_port_stub_h.
//
// It may be destroyed from inside any of its events. Whoever fires one holds it by shared_ptr, and
// looks at isDestroyed() before each callback.
class Stub : public std::enable_shared_from_this<Stub> {
public:
    explicit Stub(const char *portName) : _portName(portName) {}

    // The stub that serves a port on a simulated device; null when none does.
    static std::shared_ptr<Stub> findSimulated(const std::string &appId, const std::string &port);

    int listen();
    void destroy();
    bool isDestroyed() const { return _destroyed; }

    // A client's socket. One that cannot be served is closed.
    void addIncoming(UniqueFd socket);
    void dropIncoming(const Incoming &incoming);
    // It has said hello: pairs it with its other half or lets it wait. False: it must go.
    bool greet(Incoming &incoming);

    Link *findLink(const char *instance);
    void forget(const Link &link);

    void fireReceived(Link &link);
    void fireDisconnected(const Link &link);

    Listeners<rpc_port_stub_connected_event_cb> connectedCbs;
    Listeners<rpc_port_stub_disconnected_event_cb> disconnectedCbs;
    Listeners<rpc_port_stub_received_event_cb> receivedCbs;

private:
    static Eina_Bool onAcceptCb(void *data, Ecore_Fd_Handler *handler);
    static Eina_Bool onResumeCb(void *data);

    bool listenSimulated(const std::string &name);
    bool listenReal(const std::string &appId);
    void acceptOne();
    void pauseAccepting();
    const char *reasonToRefuse(const UniqueFd &socket) const;
    void connect(Incoming &first, Incoming &second);

    const std::string _portName;
    std::string _name; // "appid:port"; empty: not listening
    bool _destroyed = false;
    ListenSocket _listenSocket;
    void *_acceptHandler = nullptr;
    void *_resumeTimer = nullptr; // null: not pausing
    bool _refusing = false;       // since the last client that was let in; keeps the log short

    std::vector<std::shared_ptr<Incoming>> _incoming;                   // the oldest first
    std::unordered_map<std::string_view, std::shared_ptr<Link>> _links; // by Link::instance()
    std::uint64_t _instances = 0;
};

} // namespace host
