// SPDX-License-Identifier: Apache-2.0
#include "direct_port.h"

#include <string>
#include <utility>

#include "parcel_values.h"

namespace {

using nelvo::testkit::bytesOf;
using nelvo::testkit::DirectPort;
using nelvo::testkit::parcelOf;

template <typename Function>
struct Event {
    Function call = nullptr;
    void *data = nullptr;
};

Event<rpc_port_stub_connected_event_cb> connected;
Event<rpc_port_stub_disconnected_event_cb> disconnected;
Event<rpc_port_stub_received_event_cb> received;
const host::Parcel *arrived = nullptr; // null: taken, or none has come
char stub, mainPort, callbackPort;     // their addresses are the handles
std::string sender;

} // namespace

namespace nelvo::testkit {

DirectPort &DirectPort::instance() {
    static DirectPort &port = *new DirectPort;
    return port;
}

void DirectPort::connect(const char *name) {
    sender = name;
    connected.call(name, "instance", connected.data);
}

void DirectPort::disconnect() {
    disconnected.call(sender.c_str(), "instance", disconnected.data);
}

int DirectPort::receive(const host::Parcel &parcel) {
    arrived = &parcel;
    return received.call(sender.c_str(), "instance", &mainPort, received.data);
}

} // namespace nelvo::testkit

int rpc_port_stub_create(rpc_port_stub_h *h, const char *) {
    *h = &stub;
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_stub_destroy(rpc_port_stub_h) {
    connected = {};
    disconnected = {};
    received = {};
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_stub_listen(rpc_port_stub_h) {
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h, rpc_port_stub_connected_event_cb cb,
                                         void *data) {
    connected = {cb, data};
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h, rpc_port_stub_disconnected_event_cb cb,
                                            void *data) {
    disconnected = {cb, data};
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_stub_add_received_event_cb(rpc_port_stub_h, rpc_port_stub_received_event_cb cb,
                                        void *data) {
    received = {cb, data};
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_stub_get_port(rpc_port_stub_h, rpc_port_port_type_e type, const char *,
                           rpc_port_h *port) {
    *port = type == RPC_PORT_PORT_MAIN ? &mainPort : &callbackPort;
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_parcel_create_from_port(rpc_port_parcel_h *h, rpc_port_h port) {
    if (port != &mainPort || !arrived)
        return RPC_PORT_ERROR_IO_ERROR;
    host::Bytes bytes = parcelOf(bytesOf(*std::exchange(arrived, nullptr))).bytes;
    bytes.reserve(1);
    *h = host::Parcel::make(std::move(bytes));
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port) {
    DirectPort &client = DirectPort::instance();
    (port == &mainPort ? client.replies : client.callbacks)
        .push_back(parcelOf(bytesOf(*static_cast<host::Parcel *>(h))));
    return RPC_PORT_ERROR_NONE;
}
