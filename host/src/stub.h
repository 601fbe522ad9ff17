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

// The server's side of a connection with one client. States:
//
//   greeting  one channel, on which a hello is expected
//   waiting   one channel that has sent its _hello; _timer runs until the client's other channel
//             has sent one too
//   standing  two channels and an _instance
//
// A connection ends exactly once, whatever the reason.
class Connection : public ChannelOwner, public std::enable_shared_from_this<Connection> {
public:
    explicit Connection(std::shared_ptr<Stub> stub) : _stub(std::move(stub)) {}
    ~Connection() override { close(); }

    void start(UniqueFd socket);
    bool isOtherHalfOf(const Connection &half) const;
    // Takes over the channel of the other half. Returns false if the two halves do not match.
    bool join(Connection &half);
    void stand(const std::string &instance);

    const char *sender() const { return _hello->sender.c_str(); }
    const std::string &instance() const { return _instance; }
    Channel &channel(rpc_port_port_type_e type) { return *_channels[type]; }
    bool hasEnded() const { return _ended; }

    // end() calls the disconnected callbacks if the connection stands; close() does not.
    void end();
    void close();

    const char *peer() const override;
    void onFrame(Channel &channel) override;
    void onEnd(Channel &channel) override;
    void onSent(Channel &channel, const Parcel &parcel) override;

private:
    static Eina_Bool onTimeoutCb(void *data);

    bool greet(Channel &channel);

    const std::shared_ptr<Stub> _stub; // destroy() breaks the cycle
    std::optional<Hello> _hello;
    std::string _instance;
    std::shared_ptr<Channel> _channels[2]; // by rpc_port_port_type_e; [0] until the type is known
    void *_timer = nullptr;
    bool _ended = false;
};

// Serves one port. An rpc_port_stub_h is the handle of a stub.
//
// A callback may destroy the stub whose event it receives: during the event the channel keeps the
// connection alive, and the connection keeps the stub alive. destroy() ends all connections.
class Stub : public PortServer, public std::enable_shared_from_this<Stub> {
public:
    explicit Stub(const char *portName) : _portName(portName) {}

    int listen();
    void destroy();

    // Serves the client at the other end of the socket, or closes the socket.
    void addIncoming(UniqueFd socket) override;
    // The half has received a hello. Joins it with its other half, if that is waiting already.
    // Returns false if the half must be closed.
    bool greet(Connection &half);

    Connection *find(const char *instance);
    // Removes a connection that has ended.
    void forget(Connection &connection);
    void fireReceived(Connection &connection);

    Listeners<rpc_port_stub_connected_event_cb> connectedCbs;
    Listeners<rpc_port_stub_disconnected_event_cb> disconnectedCbs;
    Listeners<rpc_port_stub_received_event_cb> receivedCbs;

private:
    static Eina_Bool onAcceptCb(void *data, Ecore_Fd_Handler *handler);
    static Eina_Bool onResumeCb(void *data);
    static void onLoopGone(void *data);

    bool listenSimulated(const std::string &name);
    bool listenReal(const std::string &appId);
    void pauseAccepting();
    const char *reasonToRefuse(const UniqueFd &socket) const;
    void removeIncoming(const Connection &connection);
    void fireConnected(Connection &connection);

    const std::string _portName;
    std::string _name; // "appid:port"; empty while not listening
    ListenSocket _listenSocket;
    void *_acceptHandler = nullptr;
    void *_resumeTimer = nullptr; // null: accepting clients
    bool _refusing = false;       // logged already, for the clients refused in a row

    std::vector<std::shared_ptr<Connection>> _incoming; // not standing yet, oldest first
    std::unordered_map<std::string_view, std::shared_ptr<Connection>> _standing; // by instance()
    std::uint64_t _instances = 0;
};

} // namespace host
