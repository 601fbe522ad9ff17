// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
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
#include "simulated_ports.h"
#include "unique_fd.h"

namespace host {

constexpr std::size_t MAX_CONNECTIONS = 4096;
constexpr std::size_t MAX_INCOMING = 64;
constexpr double ACCEPT_PAUSE_SECONDS = 0.1;
constexpr unsigned SPARE_DESCRIPTORS = 32;

class Stub;

// A client, from the accepted socket to the end.
//
//   greeting  one channel, which has to say hello
//   waiting   it has: _hello; _timer still runs, for its other half has to come
//   standing  two channels and an _instance
//
// It ends once, whatever goes wrong first.
class Connection : public ChannelOwner, public std::enable_shared_from_this<Connection> {
public:
    explicit Connection(std::shared_ptr<Stub> stub) : _stub(std::move(stub)) {}
    ~Connection() override { close(); }

    void start(UniqueFd socket);
    bool isOtherHalfOf(const Connection &half) const;
    // Takes over what the half is waiting with. False: the two do not fit together.
    bool join(Connection &half);
    void stand(const std::string &instance);

    const char *sender() const { return _hello->sender.c_str(); }
    const std::string &instance() const { return _instance; }
    Channel &channel(rpc_port_port_type_e type) { return *_channels[type]; }
    bool hasEnded() const { return _ended; }

    // With the disconnected event if it stands; close() goes without.
    void end();
    void close();

    const char *peer() const override;
    void onFrame(Channel &channel) override;
    void onEnd(Channel &channel) override;

private:
    static Eina_Bool onTimeoutCb(void *data);

    bool greet(Channel &channel);

    const std::shared_ptr<Stub> _stub; // which destroy() parts from its connections
    std::optional<Hello> _hello;
    std::string _instance;
    std::shared_ptr<Channel> _channels[2]; // by rpc_port_port_type_e; the first until it is known
    void *_timer = nullptr;
    bool _ended = false;
};

// What stands behind an rpc_port_stub_h.
//
// It may be destroyed from inside any of its events: the connection that fires one is kept alive by
// its channel, and keeps the stub alive. All connections of a stub that is destroyed have ended.
class Stub : public PortServer, public std::enable_shared_from_this<Stub> {
public:
    explicit Stub(const char *portName) : _portName(portName) {}

    int listen();
    void destroy();

    // A client's socket. One that cannot be served is closed.
    void addIncoming(UniqueFd socket) override;
    // It has said hello: goes together with its other half, or waits for it. False: it must go.
    bool greet(Connection &half);

    Connection *find(const char *instance);
    // It has ended.
    void forget(Connection &connection);
    void fireReceived(Connection &connection);

    Listeners<rpc_port_stub_connected_event_cb> connectedCbs;
    Listeners<rpc_port_stub_disconnected_event_cb> disconnectedCbs;
    Listeners<rpc_port_stub_received_event_cb> receivedCbs;

private:
    static Eina_Bool onAcceptCb(void *data, Ecore_Fd_Handler *handler);
    static Eina_Bool onResumeCb(void *data);

    bool listenSimulated(const std::string &name);
    bool listenReal(const std::string &appId);
    void pauseAccepting();
    const char *reasonToRefuse(const UniqueFd &socket) const;
    void removeIncoming(const Connection &connection);
    void fireConnected(Connection &connection);

    const std::string _portName;
    std::string _name; // "appid:port"; empty: not listening
    ListenSocket _listenSocket;
    void *_acceptHandler = nullptr;
    void *_resumeTimer = nullptr; // null: not pausing
    bool _refusing = false;       // since the last client that was let in; keeps the log short

    std::vector<std::shared_ptr<Connection>> _incoming; // not standing, the oldest first
    std::unordered_map<std::string_view, std::shared_ptr<Connection>> _standing; // by instance()
    std::uint64_t _instances = 0;
};

} // namespace host
