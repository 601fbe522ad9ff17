// SPDX-License-Identifier: Apache-2.0
#include "client.h"

#include <utility>

#include <host/sim.h>

namespace nelvo::testkit {
namespace {

constexpr int NO_REPLY = -100;

int resultOf(const client::Reply &reply) {
    host_sim_advance(0);
    return reply.error == RPC_PORT_ERROR_NONE ? reply.result : NO_REPLY;
}

} // namespace

Client::Client(std::string id) : _id(std::move(id)) {}

Client::~Client() = default;

bool Client::connect(const std::string &appId) {
    disconnect();
    _proxy = std::make_unique<client::MessageProxy>();
    host_sim_set_sender(_proxy->handle(), _id.c_str());
    _proxy->events.connected = [this] { _connected = true; };
    _proxy->events.rejected = [this] { _connected = false; };
    _proxy->events.disconnected = [this] { _connected = false; };
    _proxy->events.malformed = [this](const char *) { ++malformed; };
    _proxy->events.answered = [this](const client::Answer &answer) { answers.push_back(answer); };
    if (_proxy->connect(appId) != RPC_PORT_ERROR_NONE)
        return false;
    host_sim_advance(0);
    return _connected;
}

void Client::disconnect() {
    if (_proxy)
        host_sim_advance(0); // what has been sent to it arrives
    _proxy.reset();
    _connected = false;
    host_sim_advance(0);
}

int Client::setCb(const client::CallbackFields &fields) {
    return resultOf(_proxy->setCb(fields));
}

int Client::unsetCb() {
    return resultOf(_proxy->unsetCb());
}

void Client::request(const std::string &actionId, std::uint64_t requestId,
                     const std::string &params) {
    client::Request request{actionId, requestId, {}, {}};
    if (!params.empty())
        request.actionParams = params;
    send(client::makeRequest(request).get());
}

void Client::send(bundle *request) {
    _proxy->send(request);
    host_sim_advance(0);
}

void Client::post(const std::string &actionId, std::uint64_t requestId) {
    _proxy->send(client::makeRequest({actionId, requestId, {}, {}}).get());
}

rpc_port_h Client::mainPort() const {
    rpc_port_h port = nullptr;
    rpc_port_proxy_get_port(_proxy->handle(), RPC_PORT_PORT_MAIN, &port);
    return port;
}

} // namespace nelvo::testkit
