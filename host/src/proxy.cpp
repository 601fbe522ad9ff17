// SPDX-License-Identifier: Apache-2.0
#include "proxy.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

#include <sys/random.h>

#include <dlog.h>

#include <host/sim.h>

#include "app_id.h"
#include "handshake.h"
#include "log_tag.h"
#include "loop.h"
#include "names.h"
#include "runtime_dir.h"
#include "simulated_ports.h"

namespace host {

namespace {

// Leaves the system's reason in errno; 0 if there is none.
int openSocket(const std::string &appId, const std::string &port, UniqueFd &socket) {
    const bool simulated = Loop::instance().isSimulated();
    socket = simulated ? connectToSimulatedPort(appId + ":" + port) : connectToPort(appId, port);
    if (socket)
        return RPC_PORT_ERROR_NONE;
    const int error = errno;
    const bool absent = error == ENOENT || error == ECONNREFUSED;
    const char *const reason = absent            ? "nobody serves it"
                               : error == EACCES ? "another user serves it"
                                                 : std::strerror(error);
    if (error != 0) {
        dlog_print(DLOG_INFO, LOG_TAG, "cannot connect to port \"%s\" of %s: %s", port.c_str(),
                   appId.c_str(), reason);
    }
    errno = error;
    return error == EACCES     ? RPC_PORT_ERROR_PERMISSION_DENIED
           : isShortage(error) ? RPC_PORT_ERROR_OUT_OF_MEMORY
                               : RPC_PORT_ERROR_IO_ERROR;
}

} // namespace

int Proxy::connect(const char *appId, const char *port) {
    if (_main)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    if (!isValidName(appId) || !isValidName(port)) {
        dlog_print(DLOG_ERROR, LOG_TAG, "\"%s\" or \"%s\" is not a valid name: %s", appId, port,
                   VALID_NAME_HINT);
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    const std::string sender = _sender.empty() ? ownAppId() : _sender;
    if (sender.empty()) {
        dlog_print(DLOG_INFO, LOG_TAG, "cannot connect to %s: this process has no app id", appId);
        return RPC_PORT_ERROR_IO_ERROR;
    }
    _target = std::make_shared<const Target>(Target{appId, port});
    UniqueFd sockets[2];
    for (UniqueFd &socket : sockets) {
        const int result = openSocket(_target->appId, _target->port, socket);
        if (result != RPC_PORT_ERROR_NONE)
            return result;
    }
    sayHello(std::move(sockets[0]), std::move(sockets[1]), sender);
    return RPC_PORT_ERROR_NONE;
}

// If this function throws, the proxy is still idle.
void Proxy::sayHello(UniqueFd mainSocket, UniqueFd callbackSocket, const std::string &sender) {
    Hello hello{RPC_PORT_PORT_MAIN, {}, sender};
    const auto size = static_cast<ssize_t>(hello.token.size());
    if (getrandom(hello.token.data(), hello.token.size(), 0) != size)
        throw std::system_error(errno, std::generic_category());
    auto main = Channel::open(std::move(mainSocket), MAX_FRAME_BYTES, weak_from_this());
    auto callback = Channel::open(std::move(callbackSocket), MAX_FRAME_BYTES, weak_from_this());
    callback->keep(MAX_FRAME_BYTES);
    // A failed send is reported later, as a rejected event.
    main->send(encodeHello(hello));
    hello.kind = RPC_PORT_PORT_CALLBACK;
    callback->send(encodeHello(hello));
    _timer = Loop::instance().addTimer(HANDSHAKE_SECONDS, onTimeoutCb, this, true);
    if (!_timer)
        throw std::bad_alloc();
    _main = std::move(main);
    _callback = std::move(callback);
}

Eina_Bool Proxy::onTimeoutCb(void *data) {
    const auto self = static_cast<Proxy *>(data)->shared_from_this();
    dlog_print(DLOG_WARN, LOG_TAG, "%s has not answered for %g s", self->peer(), HANDSHAKE_SECONDS);
    self->end();
    return ECORE_CALLBACK_CANCEL;
}

void Proxy::reset() {
    Loop::instance().deleteTimer(std::exchange(_timer, nullptr));
    for (auto *channel : {&_main, &_callback}) {
        if (*channel) {
            (*channel)->close();
            channel->reset();
        }
    }
}

void Proxy::destroy() {
    reset();
    disconnectedCbs.clear(); // other callbacks check that the channels still exist
    rejectedCbs.clear();
}

Channel *Proxy::channel(rpc_port_port_type_e type) const {
    const auto &channel = type == RPC_PORT_PORT_MAIN ? _main : _callback;
    return isConnected() ? channel.get() : nullptr;
}

void Proxy::onFrame(Channel &channel) {
    if (&channel == _main.get()) {
        onWelcome();
        return;
    }
    const auto target = _target;
    const auto main = _main;
    receivedCbs.each([&](auto cb, void *data) {
        cb(target->appId.c_str(), target->port.c_str(), data);
        return _main == main;
    });
}

void Proxy::onWelcome() {
    Bytes bytes;
    _main->take(bytes);
    if (!isWelcome(bytes)) {
        dlog_print(DLOG_WARN, LOG_TAG, "%s has not answered as the protocol wants it", peer());
        end();
        return;
    }
    Loop::instance().deleteTimer(std::exchange(_timer, nullptr));
    _main->keep(MAX_FRAME_BYTES);
    _callback->deliver(MAX_FRAME_BYTES);
    const auto target = _target;
    const auto main = _main;
    connectedCbs.each([&](auto cb, void *data) {
        cb(target->appId.c_str(), target->port.c_str(), main->port(), data);
        return _main == main;
    });
}

// Frames that the application sent before it closed the connection are still delivered.
void Proxy::onEnd(Channel &channel) {
    if (isConnected() && &channel == _main.get() && !channel.hasFailed()) {
        _callback->drain();
    } else {
        end();
    }
}

void Proxy::end() {
    const bool connected = isConnected();
    const auto target = _target;
    // Keeps the port handles valid until the callbacks have returned.
    const auto main = _main;
    const auto callback = _callback;
    reset();
    const auto call = [&](auto cb, void *data) {
        cb(target->appId.c_str(), target->port.c_str(), data);
        return true;
    };
    connected ? disconnectedCbs.each(call) : rejectedCbs.each(call);
}

} // namespace host

using host::Proxy;

using Proxies = host::Handles<std::shared_ptr<Proxy>>;

int rpc_port_proxy_create(rpc_port_proxy_h *h) {
    if (!h)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    return host::guarded([&] {
        *h = Proxies::instance().add(std::make_shared<Proxy>());
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_proxy_destroy(rpc_port_proxy_h h) {
    if (!host::Loop::isOwnThread(__func__))
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    const std::shared_ptr<Proxy> proxy = Proxies::instance().remove(h);
    if (!proxy)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    proxy->destroy();
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_proxy_connect(rpc_port_proxy_h h, const char *appid, const char *port) {
    return host::guarded<Proxy>(__func__, h, appid && port,
                                [&](Proxy &proxy) { return proxy.connect(appid, port); });
}

int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_connected_event_cb cb,
                                          void *data) {
    return host::addListener(__func__, h, &Proxy::connectedCbs, cb, data);
}

int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h h,
                                             rpc_port_proxy_disconnected_event_cb cb, void *data) {
    return host::addListener(__func__, h, &Proxy::disconnectedCbs, cb, data);
}

int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_rejected_event_cb cb,
                                         void *data) {
    return host::addListener(__func__, h, &Proxy::rejectedCbs, cb, data);
}

int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h h, rpc_port_proxy_received_event_cb cb,
                                         void *data) {
    return host::addListener(__func__, h, &Proxy::receivedCbs, cb, data);
}

int rpc_port_proxy_get_port(rpc_port_proxy_h h, rpc_port_port_type_e type, rpc_port_h *port) {
    const bool valid = port && (type == RPC_PORT_PORT_MAIN || type == RPC_PORT_PORT_CALLBACK);
    return host::guarded<Proxy>(__func__, h, valid, [&](Proxy &proxy) -> int {
        const host::Channel *const channel = proxy.channel(type);
        if (!channel)
            return RPC_PORT_ERROR_IO_ERROR;
        *port = channel->port();
        return RPC_PORT_ERROR_NONE;
    });
}

void host_sim_set_sender(rpc_port_proxy_h proxy, const char *app_id) {
    host::guarded<Proxy>(__func__, proxy, true, [&](Proxy &self) {
        self.setSender(app_id);
        return RPC_PORT_ERROR_NONE;
    });
}
