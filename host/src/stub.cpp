// SPDX-License-Identifier: Apache-2.0
#include "stub.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/resource.h>
#include <sys/socket.h>

#include <dlog.h>

#include "app_id.h"
#include "log_tag.h"
#include "loop.h"
#include "misuse.h"
#include "names.h"
#include "tap.h"

namespace host {

void Connection::start(UniqueFd socket) {
    _channels[RPC_PORT_PORT_MAIN] =
        Channel::open(std::move(socket), MAX_HELLO_BYTES, weak_from_this());
    _timer = Loop::instance().addTimer(HANDSHAKE_SECONDS, onTimeoutCb, this, true);
    if (!_timer)
        throw std::bad_alloc();
}

bool Connection::greet(Channel &channel) {
    Bytes bytes;
    channel.take(bytes);
    _hello = decodeHello(bytes);
    if (!_hello || !isValidName(sender()))
        return false;
    if (_hello->kind == RPC_PORT_PORT_CALLBACK)
        std::swap(_channels[RPC_PORT_PORT_MAIN], _channels[RPC_PORT_PORT_CALLBACK]);
    channel.keep(_hello->kind == RPC_PORT_PORT_MAIN ? MAX_FRAME_BYTES : 0);
    return _stub->greet(*this);
}

bool Connection::isOtherHalfOf(const Connection &half) const {
    return this != &half && _hello && _hello->token == half._hello->token;
}

bool Connection::join(Connection &half) {
    const auto kind = half._hello->kind;
    if (_channels[kind] || _hello->sender != half._hello->sender)
        return false;
    _channels[kind] = std::move(half._channels[kind]);
    _channels[kind]->setOwner(weak_from_this());
    half.close();
    return true;
}

void Connection::stand(const std::string &instance) {
    _instance = instance;
    Loop::instance().deleteTimer(std::exchange(_timer, nullptr));
    channel(RPC_PORT_PORT_MAIN).deliver(MAX_FRAME_BYTES);
}

void Connection::close() {
    _ended = true;
    Loop::instance().deleteTimer(std::exchange(_timer, nullptr));
    for (const auto &channel : _channels) {
        if (channel)
            channel->close();
    }
}

void Connection::end() {
    if (!_ended) {
        close();
        _stub->forget(*this);
    }
}

const char *Connection::peer() const {
    return _hello ? sender() : "a client that has not said hello yet";
}

void Connection::onFrame(Channel &channel) {
    if (!_instance.empty()) {
        if (Tap::isOpen())
            Tap::write("received", _instance, channel.offered()->data(), channel.offered()->size());
        _stub->fireReceived(*this);
    } else if (!greet(channel)) {
        dlog_print(DLOG_WARN, LOG_TAG, "a client is refused: its hello is not valid");
        end();
    }
}

// Requests that a client sent before it closed both sockets are still served.
void Connection::onEnd(Channel &ended) {
    const bool drains = !_instance.empty() && !ended.hasFailed() &&
                        &ended == _channels[RPC_PORT_PORT_CALLBACK].get();
    drains ? channel(RPC_PORT_PORT_MAIN).drain() : end();
}

void Connection::onSent(Channel &channel, const Parcel &parcel) {
    if (&channel == _channels[RPC_PORT_PORT_CALLBACK].get())
        Tap::write("sent", _instance, parcel);
}

Eina_Bool Connection::onTimeoutCb(void *data) {
    const auto self = static_cast<Connection *>(data)->shared_from_this();
    dlog_print(DLOG_WARN, LOG_TAG, "a client is refused: its connection is not complete after %g s",
               HANDSHAKE_SECONDS);
    self->end();
    return ECORE_CALLBACK_CANCEL;
}

int Stub::listen() {
    if (!_name.empty())
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    const std::string appId = ownAppId();
    if (appId.empty()) {
        dlog_print(DLOG_ERROR, LOG_TAG, "cannot serve port \"%s\": the application has no id",
                   _portName.c_str());
        return RPC_PORT_ERROR_IO_ERROR;
    }
    std::string name = appId + ":" + _portName;
    const bool simulated = Loop::instance().isSimulated();
    if (!(simulated ? listenSimulated(name) : listenReal(appId)))
        return RPC_PORT_ERROR_IO_ERROR;
    _name = std::move(name);
    return RPC_PORT_ERROR_NONE;
}

bool Stub::listenSimulated(const std::string &name) {
    const bool added = addSimulatedPort(name, weak_from_this());
    if (!added) {
        dlog_print(DLOG_ERROR, LOG_TAG, "%s is served already; destroy that stub first",
                   name.c_str());
    }
    return added;
}

bool Stub::listenReal(const std::string &appId) {
    Loop::instance().expectStarted("rpc_port_stub_listen");
    Tap::open();
    if (_listenSocket.open(appId, _portName)) {
        _acceptHandler = Loop::instance().addHandler(_listenSocket.fd(), ECORE_FD_READ, onAcceptCb,
                                                     this, nullptr, nullptr, onLoopGone);
    }
    if (!_acceptHandler)
        _listenSocket.close();
    return _acceptHandler != nullptr;
}

// Clients then find that nobody listens, instead of waiting for ever.
void Stub::onLoopGone(void *data) {
    auto &self = *static_cast<Stub *>(data);
    self._acceptHandler = nullptr;
    self._listenSocket.close();
    misuse(
        "ecore_shutdown() has ended the main loop that serves port \"%s\", which nobody can reach "
        "any more: call ecore_init() before everything else and ecore_shutdown() last",
        self._portName.c_str());
}

void Stub::destroy() {
    disconnectedCbs.clear(); // other callbacks are not called for ended connections
    Loop::instance().deleteTimer(_resumeTimer);
    Loop::instance().deleteHandler(_acceptHandler);
    _listenSocket.close();
    if (!_name.empty() && Loop::instance().isSimulated())
        removeSimulatedPort(_name);
    for (const auto &connection : _incoming)
        connection->close();
    for (const auto &entry : _standing)
        entry.second->close();
    _incoming.clear();
    _standing.clear();
}

Eina_Bool Stub::onAcceptCb(void *data, Ecore_Fd_Handler *) {
    auto &self = *static_cast<Stub *>(data);
    UniqueFd socket(
        accept4(self._listenSocket.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
        self.addIncoming(std::move(socket));
    } else if (isShortage(errno)) {
        self.pauseAccepting();
    }
    return ECORE_CALLBACK_RENEW;
}

// The client stays in the listen queue, so without a pause the socket would be ready all the time.
void Stub::pauseAccepting() {
    dlog_print(DLOG_WARN, LOG_TAG, "clients of port \"%s\" have to wait: %s", _portName.c_str(),
               std::strerror(errno));
    _resumeTimer = Loop::instance().addTimer(ACCEPT_PAUSE_SECONDS, onResumeCb, this, true);
    if (_resumeTimer)
        Loop::instance().setFlags(_acceptHandler, 0);
}

Eina_Bool Stub::onResumeCb(void *data) {
    auto &self = *static_cast<Stub *>(data);
    self._resumeTimer = nullptr;
    Loop::instance().setFlags(self._acceptHandler, ECORE_FD_READ);
    return ECORE_CALLBACK_CANCEL;
}

// Leaves some descriptors to the application.
const char *Stub::reasonToRefuse(const UniqueFd &socket) const {
    if (!isSameUser(socket.get()))
        return "it belongs to another user";
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
        static_cast<rlim_t>(socket.get()) + SPARE_DESCRIPTORS >= limit.rlim_cur) {
        return "the process has no descriptors to spare (see ulimit -n)";
    }
    return _standing.size() >= MAX_CONNECTIONS ? "there are too many connections" : nullptr;
}

void Stub::addIncoming(UniqueFd socket) {
    if (const char *const reason = reasonToRefuse(socket)) {
        if (!std::exchange(_refusing, true)) {
            dlog_print(DLOG_WARN, LOG_TAG, "clients of port \"%s\" are refused: %s",
                       _portName.c_str(), reason);
        }
        return;
    }
    _refusing = false;
    try {
        if (_incoming.size() >= MAX_INCOMING)
            _incoming.erase(_incoming.begin());
        auto connection = std::make_shared<Connection>(shared_from_this());
        connection->start(std::move(socket));
        _incoming.push_back(std::move(connection));
    } catch (const std::bad_alloc &) {
        dlog_print(DLOG_WARN, LOG_TAG, "a client is refused: out of memory");
    }
}

void Stub::removeIncoming(const Connection &connection) {
    const auto isIt = [&](const auto &entry) { return entry.get() == &connection; };
    _incoming.erase(std::remove_if(_incoming.begin(), _incoming.end(), isIt), _incoming.end());
}

bool Stub::greet(Connection &half) {
    const auto fits = [&](const auto &entry) { return entry->isOtherHalfOf(half); };
    const auto entry = std::find_if(_incoming.begin(), _incoming.end(), fits);
    if (entry == _incoming.end())
        return true;
    const auto connection = *entry;
    if (!connection->join(half))
        return false;
    removeIncoming(half);
    removeIncoming(*connection);
    connection->stand(connection->sender() + (":" + std::to_string(++_instances)));
    _standing.emplace(connection->instance(), connection);
    if (Tap::isOpen())
        Tap::write("connected", connection->instance());
    fireConnected(*connection);
    return true;
}

Connection *Stub::find(const char *instance) {
    const auto entry = _standing.find(instance);
    return entry == _standing.end() ? nullptr : entry->second.get();
}

void Stub::fireConnected(Connection &connection) {
    connectedCbs.each([&](auto cb, void *data) {
        cb(connection.sender(), connection.instance().c_str(), data);
        return !connection.hasEnded();
    });
    connection.channel(RPC_PORT_PORT_MAIN).send(encodeWelcome());
}

void Stub::fireReceived(Connection &connection) {
    const rpc_port_h port = connection.channel(RPC_PORT_PORT_MAIN).port();
    int answer = 0;
    receivedCbs.each([&](auto cb, void *data) {
        answer = cb(connection.sender(), connection.instance().c_str(), port, data);
        return answer == 0 && !connection.hasEnded();
    });
    if (answer != 0)
        connection.end();
}

void Stub::forget(Connection &connection) {
    if (connection.instance().empty()) {
        removeIncoming(connection);
        return;
    }
    if (Tap::isOpen())
        Tap::write("gone", connection.instance());
    disconnectedCbs.each([&](auto cb, void *data) {
        cb(connection.sender(), connection.instance().c_str(), data);
        return true;
    });
    _standing.erase(connection.instance());
}

} // namespace host

using host::Stub;

using Stubs = host::Handles<std::shared_ptr<Stub>>;

int rpc_port_stub_create(rpc_port_stub_h *h, const char *port_name) {
    if (!h || !port_name)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    if (!host::isValidName(port_name)) {
        dlog_print(DLOG_ERROR, host::LOG_TAG, "the port name \"%s\" is not valid: %s", port_name,
                   host::VALID_NAME_HINT);
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    return host::guarded([&] {
        *h = Stubs::instance().add(std::make_shared<Stub>(port_name));
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_stub_destroy(rpc_port_stub_h h) {
    if (!host::Loop::isOwnThread(__func__))
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    const std::shared_ptr<Stub> stub = Stubs::instance().remove(h);
    if (!stub)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    stub->destroy();
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_stub_listen(rpc_port_stub_h h) {
    return host::guarded<Stub>(__func__, h, true, [](Stub &stub) { return stub.listen(); });
}

int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb,
                                         void *data) {
    return host::addListener(__func__, h, &Stub::connectedCbs, cb, data);
}

int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h,
                                            rpc_port_stub_disconnected_event_cb cb, void *data) {
    return host::addListener(__func__, h, &Stub::disconnectedCbs, cb, data);
}

int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h, rpc_port_stub_received_event_cb cb,
                                        void *data) {
    return host::addListener(__func__, h, &Stub::receivedCbs, cb, data);
}

int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e type, const char *instance,
                           rpc_port_h *port) {
    const bool valid =
        instance && port && (type == RPC_PORT_PORT_MAIN || type == RPC_PORT_PORT_CALLBACK);
    const bool isOwnThread = host::Loop::isOwnThread(__func__);
    const auto *const stub = isOwnThread ? Stubs::instance().find(h) : nullptr;
    host::Connection *const connection = stub && valid ? (*stub)->find(instance) : nullptr;
    if (!connection)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    *port = connection->channel(type).port();
    return RPC_PORT_ERROR_NONE;
}
