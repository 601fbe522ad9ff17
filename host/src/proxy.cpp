// SPDX-License-Identifier: Apache-2.0
#include "proxy.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <sys/random.h>
#include <sys/socket.h>

#include <app_common.h>
#include <dlog.h>

#include <host/sim.h>

#include "guarded.h"
#include "log_tag.h"
#include "loop.h"
#include "names.h"
#include "runtime_dir.h"
#include "stub.h"

namespace host {

namespace {

std::string ownAppId() {
    char *id = nullptr;
    if (app_get_id(&id) != 0) {
        return {};
    }
    const std::unique_ptr<char, void (*)(void *)> owned(id, std::free);
    return id;
}

int fail(const std::string &appId, const std::string &port, const char *reason) {
    dlog_print(DLOG_INFO, LOG_TAG, "cannot connect to port \"%s\" of %s: %s", port.c_str(),
               appId.c_str(), reason);
    return RPC_PORT_ERROR_IO_ERROR;
}

int openSimulated(const std::string &appId, const std::string &port, UniqueFd &socket) {
    const auto stub = Stub::findSimulated(appId, port);
    if (!stub) {
        return fail(appId, port, "nobody serves it");
    }
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
        return fail(appId, port, std::strerror(errno));
    }
    socket = UniqueFd(ends[0]);
    stub->addIncoming(UniqueFd(ends[1]));
    return RPC_PORT_ERROR_NONE;
}

int openReal(const std::string &appId, const std::string &port, UniqueFd &socket) {
    socket = connectToPort(appId, port);
    if (socket) {
        return RPC_PORT_ERROR_NONE;
    }
    if (errno == EACCES) {
        fail(appId, port, "another user serves it");
        return RPC_PORT_ERROR_PERMISSION_DENIED;
    }
    if (errno == 0) {
        return RPC_PORT_ERROR_IO_ERROR;
    }
    const bool absent = errno == ENOENT || errno == ECONNREFUSED;
    return fail(appId, port, absent ? "nobody serves it" : std::strerror(errno));
}

int openSocket(const std::string &appId, const std::string &port, UniqueFd &socket) {
    return Loop::instance().isSimulated() ? openSimulated(appId, port, socket)
                                          : openReal(appId, port, socket);
}

} // namespace

int Proxy::connect(const char *appId, const char *port) {
    if (_state != State::IDLE) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    if (!isValidName(appId) || !isValidName(port)) {
        dlog_print(DLOG_ERROR, LOG_TAG, "\"%s\" or \"%s\" is not a valid name: %s", appId, port,
                   VALID_NAME_HINT);
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    const std::string sender = _sender.empty() ? ownAppId() : _sender;
    if (sender.empty()) {
        return fail(appId, port, "this process has no app id");
    }
    auto target = std::make_shared<const Target>(Target{appId, port});
    UniqueFd mainSocket;
    UniqueFd callbackSocket;
    int result = openSocket(target->appId, target->port, mainSocket);
    if (result == RPC_PORT_ERROR_NONE) {
        result = openSocket(target->appId, target->port, callbackSocket);
    }
    if (result != RPC_PORT_ERROR_NONE) {
        return result;
    }
    _target = std::move(target);
    try {
        result = sayHello(std::move(mainSocket), std::move(callbackSocket), sender);
    } catch (const std::bad_alloc &) {
        result = RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
    if (result != RPC_PORT_ERROR_NONE) {
        reset();
    }
    return result;
}

int Proxy::sayHello(UniqueFd mainSocket, UniqueFd callbackSocket, const std::string &sender) {
    Hello hello{ChannelKind::MAIN, {}, sender};
    if (getrandom(hello.token.data(), hello.token.size(), 0) !=
        static_cast<ssize_t>(hello.token.size())) {
        return fail(_target->appId, _target->port, std::strerror(errno));
    }
    _state = State::CONNECTING;
    _main = Channel::open(std::move(mainSocket), MAX_FRAME_BYTES, weak_from_this());
    _callback = Channel::open(std::move(callbackSocket), MAX_FRAME_BYTES, weak_from_this());
    if (!_main || !_callback) {
        return RPC_PORT_ERROR_IO_ERROR;
    }
    _callback->setMode(Channel::Mode::HOLD);
    _timer = Loop::instance().addTimer(HANDSHAKE_SECONDS, onTimeoutCb, this, true);
    // A send that fails shows later, as a rejection.
    _main->send(encodeHello(hello));
    hello.kind = ChannelKind::CALLBACK;
    _callback->send(encodeHello(hello));
    return RPC_PORT_ERROR_NONE;
}

Eina_Bool Proxy::onTimeoutCb(void *data) {
    const auto self = static_cast<Proxy *>(data)->shared_from_this();
    dlog_print(DLOG_WARN, LOG_TAG, "%s has not answered for %g s", self->peer(), HANDSHAKE_SECONDS);
    self->end();
    return ECORE_CALLBACK_CANCEL;
}

void Proxy::reset() {
    _state = State::IDLE;
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
    connectedCbs = {};
    disconnectedCbs = {};
    rejectedCbs = {};
    receivedCbs = {};
}

Channel *Proxy::channel(rpc_port_port_type_e type) const {
    const auto &channel = type == RPC_PORT_PORT_MAIN ? _main : _callback;
    return _state == State::CONNECTED ? channel.get() : nullptr;
}

void Proxy::onFrame(Channel &channel) {
    if (&channel == _main.get()) {
        std::vector<std::uint8_t> bytes;
        channel.take(bytes);
        welcome(bytes);
        return;
    }
    const auto target = _target;
    const auto main = _main;
    receivedCbs.each([&](auto cb, void *data) {
        cb(target->appId.c_str(), target->port.c_str(), data);
        return isCurrent(main);
    });
}

void Proxy::welcome(const std::vector<std::uint8_t> &bytes) {
    if (!decodeWelcome(bytes)) {
        dlog_print(DLOG_WARN, LOG_TAG, "%s has not answered as the protocol wants it", peer());
        end();
        return;
    }
    _state = State::CONNECTED;
    Loop::instance().deleteTimer(std::exchange(_timer, nullptr));
    _main->setMode(Channel::Mode::KEEP);
    _callback->setMode(Channel::Mode::DELIVER);
    const auto target = _target;
    const auto main = _main;
    connectedCbs.each([&](auto cb, void *data) {
        cb(target->appId.c_str(), target->port.c_str(), main->port(), data);
        return isCurrent(main);
    });
}

// What the application sent before it went is still delivered.
void Proxy::onEnd(Channel &channel) {
    const bool drains =
        _state == State::CONNECTED && &channel == _main.get() && !channel.hasFailed();
    if (drains && _callback->isOpen()) {
        _callback->drain();
    } else {
        end();
    }
}

void Proxy::end() {
    const bool connected = _state == State::CONNECTED;
    const auto target = _target;
    // Their handles stay valid until the callbacks have returned.
    const auto main = _main;
    const auto callback = _callback;
    reset();
    const auto call = [&](auto cb, void *data) {
        cb(target->appId.c_str(), target->port.c_str(), data);
        return true;
    };
    connected ? disconnectedCbs.each(call) : rejectedCbs.each(call);
}

namespace {

SlotTable<std::shared_ptr<Proxy>, 5> &proxies() {
    static auto &table = *new SlotTable<std::shared_ptr<Proxy>, 5>;
    return table;
}

// Runs work for the proxy behind the handle, which stays alive meanwhile.
template <typename Work>
int withProxy(rpc_port_proxy_h h, bool argumentsValid, Work work) {
    const std::shared_ptr<Proxy> *const entry = proxies().find(h);
    if (!entry || !argumentsValid) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    const std::shared_ptr<Proxy> proxy = *entry;
    return guarded([&] { return work(*proxy); });
}

} // namespace

} // namespace host

using host::Proxy;

int rpc_port_proxy_create(rpc_port_proxy_h *h) {
    if (!h) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    return host::guarded([&] {
        *h = host::proxies().add(std::make_shared<Proxy>());
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_proxy_destroy(rpc_port_proxy_h h) {
    const std::shared_ptr<Proxy> proxy = host::proxies().remove(h);
    if (!proxy) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    proxy->destroy();
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_proxy_connect(rpc_port_proxy_h h, const char *appid, const char *port) {
    return host::withProxy(h, appid && port,
                           [&](Proxy &proxy) { return proxy.connect(appid, port); });
}

int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_connected_event_cb cb,
                                          void *data) {
    return host::withProxy(h, cb, [&](Proxy &proxy) {
        proxy.connectedCbs.add(cb, data);
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h h,
                                             rpc_port_proxy_disconnected_event_cb cb, void *data) {
    return host::withProxy(h, cb, [&](Proxy &proxy) {
        proxy.disconnectedCbs.add(cb, data);
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h h, rpc_port_proxy_rejected_event_cb cb,
                                         void *data) {
    return host::withProxy(h, cb, [&](Proxy &proxy) {
        proxy.rejectedCbs.add(cb, data);
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h h, rpc_port_proxy_received_event_cb cb,
                                         void *data) {
    return host::withProxy(h, cb, [&](Proxy &proxy) {
        proxy.receivedCbs.add(cb, data);
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_proxy_get_port(rpc_port_proxy_h h, rpc_port_port_type_e type, rpc_port_h *port) {
    const bool valid = port && (type == RPC_PORT_PORT_MAIN || type == RPC_PORT_PORT_CALLBACK);
    return host::withProxy(h, valid, [&](Proxy &proxy) -> int {
        const host::Channel *const channel = proxy.channel(type);
        if (!channel) {
            return RPC_PORT_ERROR_IO_ERROR;
        }
        *port = channel->port();
        return RPC_PORT_ERROR_NONE;
    });
}

void host_sim_set_sender(rpc_port_proxy_h proxy, const char *app_id) {
    host::withProxy(proxy, true, [&](Proxy &self) {
        self.setSender(app_id);
        return RPC_PORT_ERROR_NONE;
    });
}
