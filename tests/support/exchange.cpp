// SPDX-License-Identifier: Apache-2.0
#include "exchange.h"

#include <climits>
#include <cstring>

#include <host/sim.h>

#include "fuzzing.h"
#include "parcel_values.h"

namespace nelvo::testkit {
namespace {

constexpr int NEVER = INT_MAX;
constexpr int ALWAYS = INT_MAX;

std::string described(int seq, std::uint64_t requestId, bool success) {
    return std::to_string(seq) + (success ? " success of " : " failure of ") +
           std::to_string(requestId);
}

host::Parcel callbackParcel(char code) {
    host::Parcel parcel;
    rpc_port_parcel_write_int32(&parcel, code == 'U' ? 3 : 2);
    rpc_port_parcel_write_int32(&parcel, 1);
    rpc_port_parcel_write_int32(&parcel, 42);
    rpc_port_parcel_write_bool(&parcel, code == 'O');
    return parcel;
}

host::Parcel requestParcel(char code, std::uint64_t id) {
    const char *const actionId = code == 'R' ? "play" : code == 'T' ? "getAppContext" : "late";
    host::Parcel parcel;
    rpc_port_parcel_write_int32(&parcel, 4);
    rpc_port_parcel_write_bundle(&parcel, client::makeRequest({actionId, id, {}, {}}).get());
    return parcel;
}

} // namespace

Exchange::Exchange() : _deadline(NEVER) {
    _port.replies.clear();
    _port.callbacks.clear();
    nelvo_initialize();
    _action.registerAction("play");
    _action.then = [](void *handler, bundle *) { nelvo_complete_action_execution(handler, ""); };
    _state.registerState();
    _port.connect("demo.client");
}

bool Exchange::step(char code) {
    const bool isKnown = code != '\0' && std::strchr("COURTWX._", code) != nullptr;
    if (code == '.' || code == '_')
        pass(code == '.' ? 20 : 31'000);
    else if (code == 'X')
        reconnect();
    else if (isKnown)
        receive(std::strchr("COU", code) ? callbackParcel(code) : requestParcel(code, _nextId++));
    return isKnown;
}

void Exchange::receive(host::Parcel parcel) {
    const bool isTaken = _port.receive(parcel) == 0;
    const int method = readInt(parcel).value_or(-1);
    require(isTaken == (method >= 2 && method <= 4), "whether the method is known");
    if (method == 4)
        request(readBundle(parcel).get());
    else if (!isTaken)
        reconnect();
    else
        setCb(method == 2, parcel);
}

void Exchange::setCb(bool set, host::Parcel &parcel) {
    require(_port.replies.size() == 1 && readInt(_port.replies[0]) == 0 &&
                readInt(_port.replies[0]) == 0,
            "the reply");
    _port.replies.clear();
    if (!set) {
        _usesLeft = 0;
        return;
    }
    readInt(parcel);
    static int callbacks = 0; // of the process, as the library counts them
    _seq = readInt(parcel).value_or(callbacks);
    ++callbacks;
    _usesLeft = readBool(parcel).value_or(false) ? 1 : ALWAYS;
}

void Exchange::request(bundle *content) {
    char *name = nullptr;
    void *id = nullptr;
    std::size_t size = 0;
    const int error = bundle_get_byte(content, "requestId", &id, &size);
    if (bundle_get_str(content, "actionId", &name) != 0 ||
        (error == 0 ? size != sizeof _pending : error != BUNDLE_ERROR_KEY_NOT_AVAILABLE))
        return;
    _pending = 0;
    if (error == 0)
        std::memcpy(&_pending, id, size);
    const std::string actionId = name;
    _deadline = _now + (actionId == "getAppContext" ? 30'000 : 120);
    if (actionId == "play")
        answer(true);
}

void Exchange::answer(bool success) {
    _deadline = NEVER;
    if (_usesLeft > 0)
        _wanted.push_back(described(_seq, _pending, success));
    _usesLeft -= _usesLeft > 0 ? 1 : 0;
}

void Exchange::reconnect() {
    _port.disconnect();
    _port.connect("demo.client");
    _usesLeft = 0;
}

void Exchange::pass(int milliseconds) {
    host_sim_advance(milliseconds / 1000.0);
    _now += milliseconds;
    if (_now >= _deadline)
        answer(false);
}

void Exchange::finish() {
    nelvo_deinitialize();
    require(host_sim_timer_count() == 0, "the number of timers");
    require(_port.replies.empty() && _port.callbacks.size() == _wanted.size(), "how many answers");
    for (std::size_t i = 0; i < _wanted.size(); ++i) {
        host::Parcel &parcel = _port.callbacks[i];
        require(readInt(parcel) == 1, "the method of an answer");
        readInt(parcel);
        const int number = *readInt(parcel);
        readBool(parcel);
        require(readText(parcel) == "demo.app", "the sender of an answer");
        const auto response = client::readResponse(readBundle(parcel));
        const std::string got = described(number, *response.requestId, response.succeeded());
        require(got == _wanted[i], got + ", not " + _wanted[i]);
    }
}

} // namespace nelvo::testkit
