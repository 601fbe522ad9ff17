// SPDX-License-Identifier: Apache-2.0
#include "stub.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>

#include <sys/resource.h>
#include <sys/socket.h>

#include <app_common.h>
#include <dlog.h>

#include "guarded.h"
#include "log_tag.h"
#include "loop.h"
#include "names.h"

namespace host {

namespace {

using Registry = std::map<std::string, std::weak_ptr<Stub>>;

// Of the simulated device: who serves "appid:port".
Registry &registry() {
    static auto &stubs = *new Registry;
    return stubs;
}

bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

} // namespace

Incoming::~Incoming() {
    Loop::instance().deleteTimer(_timer);
    if (_channel) {
        _channel->close();
    }
}

void Incoming::start(const std::shared_ptr<Incoming> &self, UniqueFd socket) {
    _channel = Channel::open(std::move(socket), MAX_HELLO_BYTES, self);
    if (!_channel) {
        throw std::bad_alloc();
    }
    _timer = Loop::instance().addTimer(HANDSHAKE_SECONDS, onTimeoutCb, this, true);
}

bool Incoming::matches(const Incoming &other) const {
    return this != &other && _greeted && _hello.token == other._hello.token;
}

void Incoming::onFrame(Channel &channel) {
    const auto stub = _stub.lock();
    std::vector<std::uint8_t> bytes;
    channel.take(bytes);
    _greeted = decodeHello(bytes, _hello) && isValidName(_hello.sender.c_str());
    if (stub && (!_greeted || !stub->greet(*this))) {
        dlog_print(DLOG_WARN, LOG_TAG, "a client is refused: its hello is not valid");
        stub->dropIncoming(*this);
    }
    if (_channel) {
        _channel->setMode(Channel::Mode::HOLD);
    }
}

void Incoming::onEnd(Channel &) {
    if (const auto stub = _stub.lock()) {
        stub->dropIncoming(*this);
    }
}

Eina_Bool Incoming::onTimeoutCb(void *data) {
    auto &self = *static_cast<Incoming *>(data);
    dlog_print(DLOG_WARN, LOG_TAG, "a client is refused: its connection is not complete after %g s",
               HANDSHAKE_SECONDS);
    if (const auto stub = self._stub.lock()) {
        stub->dropIncoming(self);
    }
    return ECORE_CALLBACK_CANCEL;
}

Link::Link(std::weak_ptr<Stub> stub, std::string sender, std::string instance,
           std::shared_ptr<Channel> mainChannel, std::shared_ptr<Channel> callbackChannel)
    : _stub(std::move(stub)), _sender(std::move(sender)), _instance(std::move(instance)),
      _main(std::move(mainChannel)), _callback(std::move(callbackChannel)) {}

void Link::close() {
    _ended = true;
    _main->close();
    _callback->close();
}

void Link::end() {
    if (_ended) {
        return;
    }
    close();
    if (const auto stub = _stub.lock()) {
        stub->fireDisconnected(*this);
        stub->forget(*this);
    }
}

void Link::onFrame(Channel &) {
    const auto stub = _stub.lock();
    if (stub && !_ended) {
        stub->fireReceived(*this);
    }
}

// A client that has closed both may have sent requests before: they are still served.
void Link::onEnd(Channel &channel) {
    if (&channel == _callback.get() && !channel.hasFailed()) {
        _main->drain();
    } else {
        end();
    }
}

std::shared_ptr<Stub> Stub::findSimulated(const std::string &appId, const std::string &port) {
    const auto entry = registry().find(appId + ":" + port);
    return entry == registry().end() ? nullptr : entry->second.lock();
}

int Stub::listen() {
    if (!_name.empty()) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    char *id = nullptr;
    if (app_get_id(&id) != 0) {
        dlog_print(DLOG_ERROR, LOG_TAG, "cannot serve port \"%s\": the application has no id",
                   _portName.c_str());
        return RPC_PORT_ERROR_IO_ERROR;
    }
    const std::unique_ptr<char, void (*)(void *)> owned(id, std::free);
    const std::string appId = id;
    std::string name = appId + ":" + _portName;
    const bool simulated = Loop::instance().isSimulated();
    if (!(simulated ? listenSimulated(name) : listenReal(appId))) {
        return RPC_PORT_ERROR_IO_ERROR;
    }
    _name = std::move(name);
    return RPC_PORT_ERROR_NONE;
}

bool Stub::listenSimulated(const std::string &name) {
    const bool isFree = registry().emplace(name, weak_from_this()).second;
    if (!isFree) {
        dlog_print(DLOG_ERROR, LOG_TAG, "%s is served already; destroy that stub first",
                   name.c_str());
    }
    return isFree;
}

bool Stub::listenReal(const std::string &appId) {
    if (_listenSocket.open(appId, _portName)) {
        _acceptHandler = Loop::instance().addHandler(_listenSocket.fd(), ECORE_FD_READ, onAcceptCb,
                                                     this, nullptr, nullptr);
    }
    if (!_acceptHandler) {
        _listenSocket.close();
    }
    return _acceptHandler != nullptr;
}

void Stub::destroy() {
    _destroyed = true;
    Loop::instance().deleteTimer(_resumeTimer);
    Loop::instance().deleteHandler(_acceptHandler);
    _listenSocket.close();
    if (Loop::instance().isSimulated() && !_name.empty()) {
        registry().erase(_name);
    }
    _incoming.clear();
    for (const auto &entry : _links) {
        entry.second->close();
    }
    _links.clear();
}

Eina_Bool Stub::onAcceptCb(void *data, Ecore_Fd_Handler *) {
    static_cast<Stub *>(data)->acceptOne();
    return ECORE_CALLBACK_RENEW;
}

void Stub::acceptOne() {
    UniqueFd socket(accept4(_listenSocket.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (socket) {
        addIncoming(std::move(socket));
    } else if (isShortage(errno)) {
        pauseAccepting();
    }
}

// The client stays in the queue, which would wake us again and again.
void Stub::pauseAccepting() {
    dlog_print(DLOG_WARN, LOG_TAG, "clients of port \"%s\" have to wait: %s", _portName.c_str(),
               std::strerror(errno));
    try {
        _resumeTimer = Loop::instance().addTimer(ACCEPT_PAUSE_SECONDS, onResumeCb, this, true);
        Loop::instance().setFlags(_acceptHandler, 0);
    } catch (const std::bad_alloc &) {
        // Without a pause, then: the next round tries again.
    }
}

Eina_Bool Stub::onResumeCb(void *data) {
    auto &self = *static_cast<Stub *>(data);
    self._resumeTimer = nullptr;
    Loop::instance().setFlags(self._acceptHandler, ECORE_FD_READ);
    return ECORE_CALLBACK_CANCEL;
}

// The application itself needs descriptors as well, so some are left to it.
const char *Stub::reasonToRefuse(const UniqueFd &socket) const {
    if (!isSameUser(socket.get())) {
        return "it belongs to another user";
    }
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
        static_cast<rlim_t>(socket.get()) + SPARE_DESCRIPTORS >= limit.rlim_cur) {
        return "the process has no descriptors to spare (see ulimit -n)";
    }
    return _links.size() >= MAX_CONNECTIONS ? "there are too many connections" : nullptr;
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
        if (_incoming.size() >= MAX_INCOMING) {
            _incoming.erase(_incoming.begin());
        }
        auto incoming = std::make_shared<Incoming>(weak_from_this());
        incoming->start(incoming, std::move(socket));
        _incoming.push_back(std::move(incoming));
    } catch (const std::bad_alloc &) {
        dlog_print(DLOG_WARN, LOG_TAG, "a client is refused: out of memory");
    }
}

void Stub::dropIncoming(const Incoming &incoming) {
    const auto isIt = [&](const auto &entry) { return entry.get() == &incoming; };
    const auto entry = std::find_if(_incoming.begin(), _incoming.end(), isIt);
    if (entry != _incoming.end()) {
        const auto last = std::move(*entry);
        _incoming.erase(entry);
    }
}

bool Stub::greet(Incoming &incoming) {
    const auto matches = [&](const auto &entry) { return entry->matches(incoming); };
    const auto entry = std::find_if(_incoming.begin(), _incoming.end(), matches);
    if (entry == _incoming.end()) {
        return true;
    }
    const auto other = *entry;
    const bool fits = other->hello().kind != incoming.hello().kind &&
                      other->hello().sender == incoming.hello().sender;
    if (fits) {
        connect(*other, incoming);
    }
    return fits;
}

void Stub::connect(Incoming &first, Incoming &second) {
    const bool inOrder = first.hello().kind == ChannelKind::MAIN;
    auto main = (inOrder ? first : second).takeChannel();
    auto callback = (inOrder ? second : first).takeChannel();
    const std::string sender = first.hello().sender;
    dropIncoming(first);
    dropIncoming(second);

    auto link = std::make_shared<Link>(weak_from_this(), sender,
                                       sender + ":" + std::to_string(++_instances), main, callback);
    main->setOwner(link);
    main->setFrameLimit(MAX_FRAME_BYTES);
    callback->setOwner(link);
    callback->setFrameLimit(0);
    _links.emplace(link->instance(), link);
    main->setMode(Channel::Mode::DELIVER);
    callback->setMode(Channel::Mode::SILENT);

    connectedCbs.each([&](auto cb, void *data) {
        cb(link->sender(), link->instance().c_str(), data);
        return !_destroyed && !link->hasEnded();
    });
    if (!link->hasEnded()) {
        main->send(encodeWelcome());
    }
}

Link *Stub::findLink(const char *instance) {
    const auto entry = _links.find(instance);
    return entry == _links.end() ? nullptr : entry->second.get();
}

void Stub::forget(const Link &link) {
    _links.erase(link.instance());
}

void Stub::fireReceived(Link &link) {
    const rpc_port_h port = link.channel(RPC_PORT_PORT_MAIN).port();
    int answer = 0;
    receivedCbs.each([&](auto cb, void *data) {
        answer = cb(link.sender(), link.instance().c_str(), port, data);
        return answer == 0 && !link.hasEnded();
    });
    if (answer != 0) {
        link.end();
    }
}

void Stub::fireDisconnected(const Link &link) {
    disconnectedCbs.each([&](auto cb, void *data) {
        cb(link.sender(), link.instance().c_str(), data);
        return !_destroyed;
    });
}

namespace {

SlotTable<std::shared_ptr<Stub>, 4> &stubs() {
    static auto &table = *new SlotTable<std::shared_ptr<Stub>, 4>;
    return table;
}

// Runs work for the stub behind the handle, which stays alive meanwhile.
template <typename Work>
int withStub(rpc_port_stub_h h, bool argumentsValid, Work work) {
    const std::shared_ptr<Stub> *const entry = stubs().find(h);
    if (!entry || !argumentsValid) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    const std::shared_ptr<Stub> stub = *entry;
    return guarded([&] { return work(*stub); });
}

} // namespace

} // namespace host

using host::Stub;

int rpc_port_stub_create(rpc_port_stub_h *h, const char *port_name) {
    if (!h || !port_name) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    if (!host::isValidName(port_name)) {
        dlog_print(DLOG_ERROR, host::LOG_TAG, "the port name \"%s\" is not valid: %s", port_name,
                   host::VALID_NAME_HINT);
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    return host::guarded([&] {
        *h = host::stubs().add(std::make_shared<Stub>(port_name));
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_stub_destroy(rpc_port_stub_h h) {
    const std::shared_ptr<Stub> stub = host::stubs().remove(h);
    if (!stub) {
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    }
    stub->destroy();
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_stub_listen(rpc_port_stub_h h) {
    return host::withStub(h, true, [](Stub &stub) { return stub.listen(); });
}

int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h, rpc_port_stub_connected_event_cb cb,
                                         void *data) {
    return host::withStub(h, cb, [&](Stub &stub) {
        stub.connectedCbs.add(cb, data);
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h,
                                            rpc_port_stub_disconnected_event_cb cb, void *data) {
    return host::withStub(h, cb, [&](Stub &stub) {
        stub.disconnectedCbs.add(cb, data);
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h, rpc_port_stub_received_event_cb cb,
                                        void *data) {
    return host::withStub(h, cb, [&](Stub &stub) {
        stub.receivedCbs.add(cb, data);
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e type, const char *instance,
                           rpc_port_h *port) {
    const bool valid =
        instance && port && (type == RPC_PORT_PORT_MAIN || type == RPC_PORT_PORT_CALLBACK);
    return host::withStub(h, valid, [&](Stub &stub) -> int {
        host::Link *const link = stub.findLink(instance);
        if (!link) {
            return RPC_PORT_ERROR_INVALID_PARAMETER;
        }
        *port = link->channel(type).port();
        return RPC_PORT_ERROR_NONE;
    });
}
