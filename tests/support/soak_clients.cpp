// SPDX-License-Identifier: Apache-2.0
#include "soak_clients.h"

#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <Ecore.h>
#include <host/sim.h>

namespace nelvo::testkit::soak {
namespace {

constexpr std::uint64_t WINDOW = 64; // requests under way
constexpr useconds_t PAUSE = 300;    // microseconds, of a client that has nothing to do
constexpr std::uint64_t EVERY[] = {50, 2000, 20}; // finished requests between two acts of each kind
constexpr int UNREAD = 300;                       // answers: more than may be queued for a client

} // namespace

int Client::run() {
    ecore_init();
    while (!_ledger.stop) {
        const bool busy = turn();
        ecore_main_loop_iterate();
        if (!busy)
            usleep(PAUSE);
    }
    leave();
    return 0;
}

bool Client::join() {
    if (_ended)
        leave();
    if (!_proxy) {
        _proxy = std::make_unique<client::MessageProxy>();
        _connected = _registered = _ended = false;
        host_sim_set_sender(_proxy->handle(), _id.c_str());
        _proxy->events.connected = [this] { _connected = true; };
        _proxy->events.rejected = _proxy->events.disconnected = [this] { _ended = true; };
        _proxy->events.answered = [this](const client::Answer &answer) { answered(answer); };
        _proxy->events.malformed = [this](const char *) { ++_ledger.wrong; };
        if (_proxy->connect(APP) != RPC_PORT_ERROR_NONE)
            leave(); // it has not begun to listen
    } else if (_connected && !_registered) {
        _registered = _proxy->setCb().ok();
    }
    return _registered && !_ended;
}

HonestClient::HonestClient(Ledger &ledger, std::size_t number)
    : Client(ledger, "honest." + std::to_string(number)), _number(number) {}

bool HonestClient::turn() {
    if (!join())
        return true;
    std::atomic<std::uint64_t> &done = _ledger.done[_number];
    const auto isDone = [&](std::uint64_t nth) {
        const Entry &entry = _ledger.entries[nth * HONEST + _number];
        return entry.fate == OVERTAKEN || (entry.fate == ANSWERED && entry.answers > 0);
    };
    while (done < _sent && isDone(done))
        ++done;
    const bool asksState = _number == 0; // one at a time: the state's callback is not told the id
    bool busy = false;
    for (; _sent < _ledger.limit[_number] && _sent - done < (asksState ? 1 : WINDOW); ++_sent) {
        const std::uint64_t id = _sent * HONEST + _number;
        if (asksState)
            _ledger.stateRequest = id;
        const char *actionId = asksState ? client::STATE_ACTION_ID : "work";
        if (_proxy->send(client::makeRequest({actionId, id, {}, {}}).get()) != 0)
            ++_ledger.wrong;
        busy = true;
    }
    return busy;
}

void HonestClient::answered(const client::Answer &answer) {
    const client::Response &response = answer.response;
    const std::uint64_t id = response.requestId.value_or(_ledger.requests);
    if (id >= _ledger.requests || id % HONEST != _number) {
        ++_ledger.wrong;
        return;
    }
    ++_ledger.entries[id].answers;
    const std::string text = response.field(_number == 0 ? "appContext" : "result");
    if (text != (response.succeeded() ? std::to_string(id) : ""))
        ++_ledger.wrong;
}

HostileClient::HostileClient(Ledger &ledger, std::size_t number)
    : Client(ledger, "hostile." + std::to_string(number)), _number(number),
      // In virtual time the loop that reads is everybody's.
      _kind(number == 1 && ledger.isVirtual ? VANISHES : static_cast<Kind>(number)),
      _random(static_cast<unsigned>(number)) {}

bool HostileClient::turn() {
    if (_ledger.calm) {
        leave();
        close(std::exchange(_rawSocket, -1));
        _nextAct = 0;
        _ledger.gone[_number] = true;
        return false;
    }
    _ledger.gone[_number] = false;
    const std::uint64_t finished = _ledger.finished();
    if (finished < _nextAct)
        return false;
    if (!join()) {
        if (_kind == VANISHES && below(8) == 0)
            leave(); // before it is welcome
        return true;
    }
    _nextAct = finished + EVERY[_kind];
    ++_ledger.acts[_number];
    _kind == GARBLES ? garble() : _kind == VANISHES ? vanish() : readNothing();
    return true;
}

void HostileClient::request(const char *actionId) {
    const std::uint64_t id = _ledger.requests + below(1000);
    _proxy->send(client::makeRequest({actionId, id, {}, {}}).get());
}

// A parcel with any method and anything behind it, or a request with an id of the wrong size.
void HostileClient::garble() {
    if (!_ledger.isVirtual)
        sendRawGarbage();
    const client::BundlePtr broken(bundle_create());
    bundle_add_byte(broken.get(), "requestId", "1234567", 1 + below(7));
    bundle_add_str(broken.get(), "actionId", "work");
    rpc_port_h port = nullptr;
    rpc_port_parcel_h parcel = nullptr;
    rpc_port_proxy_get_port(_proxy->handle(), RPC_PORT_PORT_MAIN, &port);
    rpc_port_parcel_create(&parcel);
    const int methods[] = {-1, 0, 1, 2, 4, 5}; // not UnsetCB: whoever registers stays registered
    rpc_port_parcel_write_int32(parcel, methods[below(6)]);
    if (below(2) == 0)
        rpc_port_parcel_write_bundle(parcel, broken.get());
    else
        for (unsigned left = below(20); left > 0; --left)
            rpc_port_parcel_write_int32(parcel, static_cast<int>(_random()));
    rpc_port_parcel_send(parcel, port);
    rpc_port_parcel_destroy(parcel);
    leave();
}

// Stays connected until the next time.
void HostileClient::sendRawGarbage() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path =
        std::getenv("NELVO_HOST_RUNTIME_DIR") + std::string("/") + APP + ":message";
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    close(_rawSocket);
    _rawSocket = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (connect(_rawSocket, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        return;
    unsigned words[16] = {below(100)}; // the length of the first frame
    for (std::size_t i = 1; i < 16; ++i)
        words[i] = static_cast<unsigned>(_random());
    send(_rawSocket, words, 4 + below(sizeof words - 4), MSG_NOSIGNAL);
}

// Asks for more than is ever queued for it, and stops running its loop until others have got on.
void HostileClient::readNothing() {
    for (int i = 0; i < UNREAD; ++i)
        request("fill");
    while (!_ledger.calm && !_ledger.stop && _ledger.finished() < _nextAct)
        usleep(PAUSE);
    leave();
}

// "nobody" is not registered: the request waits, overtaking others, until it is overtaken itself.
void HostileClient::vanish() {
    request(below(2) == 0 ? "work" : "nobody");
    if (below(2) == 0)
        leave();
}

} // namespace nelvo::testkit::soak
