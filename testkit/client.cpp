// SPDX-License-Identifier: Apache-2.0
#include <nelvo/testkit.h>

#include <stdexcept>

#include <host/sim.h>

#include "client_wire.h"
#include "simulated_app.h"

namespace nelvo::testkit {
namespace {

constexpr int NO_REPLY = -100;

int resultOf(const client::Reply &reply) {
    host_sim_advance(0);
    return reply.error == RPC_PORT_ERROR_NONE ? reply.result : NO_REPLY;
}

client::MessageProxy &proxyOf(const Client::Wire &wire) {
    if (!wire.proxy)
        throw std::logic_error(wire.id + " has no connection: call join() or connect() first");
    return *wire.proxy;
}

} // namespace

Fields success(const std::string &key, const std::string &value) {
    return {{"status_code", client::STATUS_SUCCESS}, {key, value}};
}

Fields failure(const std::string &key, const std::string &message) {
    return {{"status_code", "ACTION_EXECUTION_FAILURE"}, {key, ""}, {"status_msg", message}};
}

std::string Answer::field(const std::string &key) const {
    const auto found = fields.find(key);
    return found == fields.end() ? std::string() : found->second;
}

bool Answer::succeeded() const {
    return field("status_code") == client::STATUS_SUCCESS;
}

Client::Client(const std::string &id) : _wire(new Wire{id}) {}

Client::~Client() = default;

bool Client::connect() {
    disconnect();
    _wire->proxy = std::make_unique<client::MessageProxy>();
    client::MessageProxy &proxy = *_wire->proxy;
    host_sim_set_sender(proxy.handle(), _wire->id.c_str());
    proxy.events.connected = [this] { _wire->connected = true; };
    proxy.events.rejected = [this] { _wire->connected = false; };
    proxy.events.disconnected = [this] { _wire->connected = false; };
    proxy.events.answered = [this](const client::Answer &answer) {
        const auto &[content, fields, requestId] = answer.response;
        answers.push_back({answer.sender, Fields(fields.begin(), fields.end()), requestId});
    };
    if (proxy.connect(simulatedAppId()) != RPC_PORT_ERROR_NONE)
        return false;
    host_sim_advance(0);
    return _wire->connected;
}

void Client::disconnect() {
    if (_wire->proxy)
        host_sim_advance(0); // what has been sent to it arrives
    _wire->proxy.reset();
    _wire->connected = false;
    host_sim_advance(0);
}

bool Client::connected() const {
    return _wire->connected;
}

int Client::setCb() {
    return testkit::setCb(*this, {1, 1, false});
}

int Client::unsetCb() {
    return resultOf(proxyOf(*_wire).unsetCb());
}

void Client::request(const std::string &actionId, std::uint64_t requestId,
                     const std::string &params) {
    client::Request request{actionId, requestId, {}, {}};
    if (!params.empty())
        request.actionParams = params;
    send(client::makeRequest(request).get());
}

void Client::requestState(std::uint64_t requestId) {
    request(client::STATE_ACTION_ID, requestId);
}

void Client::send(bundle *request) {
    proxyOf(*_wire).send(request);
    host_sim_advance(0);
}

int setCb(Client &client, const client::CallbackFields &fields) {
    return resultOf(proxyOf(client.wire()).setCb(fields));
}

void post(Client &client, const std::string &actionId, std::uint64_t requestId) {
    proxyOf(client.wire()).send(client::makeRequest({actionId, requestId, {}, {}}).get());
}

void sendParcel(Client &client, const std::function<void(rpc_port_parcel_h)> &write) {
    rpc_port_h port = nullptr;
    rpc_port_parcel_h parcel = nullptr;
    rpc_port_proxy_get_port(proxyOf(client.wire()).handle(), RPC_PORT_PORT_MAIN, &port);
    rpc_port_parcel_create(&parcel);
    write(parcel);
    rpc_port_parcel_send(parcel, port);
    rpc_port_parcel_destroy(parcel);
    host_sim_advance(0);
}

} // namespace nelvo::testkit
