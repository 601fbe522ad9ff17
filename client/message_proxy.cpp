// SPDX-License-Identifier: Apache-2.0
#include "message_proxy.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>

namespace nelvo::client {

namespace {

const char *const PORT_NAME = "message";

// A parcel that holds only the method's number; null if memory is short.
ParcelPtr makeParcel(Method method) {
    rpc_port_parcel_h parcel = nullptr;
    if (rpc_port_parcel_create(&parcel) != RPC_PORT_ERROR_NONE)
        return nullptr;
    ParcelPtr made(parcel);
    if (rpc_port_parcel_write_int32(parcel, method) != RPC_PORT_ERROR_NONE)
        return nullptr;
    return made;
}

bool writeFields(rpc_port_parcel_h parcel, const CallbackFields &fields) {
    return rpc_port_parcel_write_int32(parcel, fields.id) == RPC_PORT_ERROR_NONE &&
           rpc_port_parcel_write_int32(parcel, fields.seq) == RPC_PORT_ERROR_NONE &&
           rpc_port_parcel_write_bool(parcel, fields.once) == RPC_PORT_ERROR_NONE;
}

// Sends the parcel and waits for the result of its method.
Reply call(rpc_port_parcel_h request, rpc_port_h port) {
    Reply reply;
    reply.error = rpc_port_parcel_send(request, port);
    if (reply.error != RPC_PORT_ERROR_NONE)
        return reply;
    rpc_port_parcel_h parcel = nullptr;
    reply.error = rpc_port_parcel_create_from_port(&parcel, port);
    if (reply.error != RPC_PORT_ERROR_NONE)
        return reply;

    ParcelPtr received(parcel);
    int method = SEND;
    if (rpc_port_parcel_read_int32(parcel, &method) != RPC_PORT_ERROR_NONE || method != RESULT ||
        rpc_port_parcel_read_int32(parcel, &reply.result) != RPC_PORT_ERROR_NONE)
        reply.error = RPC_PORT_ERROR_IO_ERROR;
    return reply;
}

} // namespace

const char *readAnswer(rpc_port_parcel_h parcel, Answer &answer) {
    int method = RESULT;
    if (rpc_port_parcel_read_int32(parcel, &method) != RPC_PORT_ERROR_NONE || method != CALLBACK)
        return "its method is not the callback";
    CallbackFields &fields = answer.callback;
    if (rpc_port_parcel_read_int32(parcel, &fields.id) != RPC_PORT_ERROR_NONE ||
        rpc_port_parcel_read_int32(parcel, &fields.seq) != RPC_PORT_ERROR_NONE ||
        rpc_port_parcel_read_bool(parcel, &fields.once) != RPC_PORT_ERROR_NONE)
        return "it ends before the callback's fields";
    char *sender = nullptr;
    if (rpc_port_parcel_read_string(parcel, &sender) != RPC_PORT_ERROR_NONE)
        return "it has no sender";
    std::unique_ptr<char, decltype(&std::free)> senderOwner(sender, std::free);
    bundle *response = nullptr;
    if (rpc_port_parcel_read_bundle(parcel, &response) != RPC_PORT_ERROR_NONE)
        return "it has no response";
    BundlePtr responseOwner(response);
    answer.sender = sender;
    answer.response = readResponse(std::move(responseOwner));
    return nullptr;
}

namespace {

const char *takeAnswer(rpc_port_proxy_h proxy, Answer &answer) {
    rpc_port_h port = nullptr;
    rpc_port_parcel_h parcel = nullptr;
    if (rpc_port_proxy_get_port(proxy, RPC_PORT_PORT_CALLBACK, &port) != RPC_PORT_ERROR_NONE ||
        rpc_port_parcel_create_from_port(&parcel, port) != RPC_PORT_ERROR_NONE)
        return "it cannot be read off the port";
    ParcelPtr received(parcel);
    try {
        return readAnswer(parcel, answer);
    } catch (const std::bad_alloc &) {
        return "there is no memory for it";
    }
}

// Calls a copy of the event, since the event may destroy the proxy that owns the original.
template <typename Event, typename... Args>
void fire(Event event, Args &&...args) {
    if (event)
        event(args...);
}

} // namespace

MessageProxy::MessageProxy() {
    if (rpc_port_proxy_create(&_handle) != RPC_PORT_ERROR_NONE) {
        _handle = nullptr;
        return;
    }
    rpc_port_proxy_add_connected_event_cb(_handle, _connectedCb, this);
    rpc_port_proxy_add_rejected_event_cb(_handle, _rejectedCb, this);
    rpc_port_proxy_add_disconnected_event_cb(_handle, _disconnectedCb, this);
    rpc_port_proxy_add_received_event_cb(_handle, _receivedCb, this);
}

MessageProxy::~MessageProxy() {
    if (_handle)
        rpc_port_proxy_destroy(_handle);
}

int MessageProxy::connect(const std::string &appId) {
    if (!_handle)
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    errno = 0;
    return rpc_port_proxy_connect(_handle, appId.c_str(), PORT_NAME);
}

Reply MessageProxy::setCb() {
    CallbackFields fields;
    fields.seq = _nextSeq++;
    return setCb(fields);
}

Reply MessageProxy::setCb(const CallbackFields &fields) {
    if (!_mainPort)
        return {RPC_PORT_ERROR_IO_ERROR, 0};
    ParcelPtr parcel = makeParcel(SET_CB);
    if (!parcel || !writeFields(parcel.get(), fields))
        return {RPC_PORT_ERROR_OUT_OF_MEMORY, 0};
    return call(parcel.get(), _mainPort);
}

Reply MessageProxy::unsetCb() {
    if (!_mainPort)
        return {RPC_PORT_ERROR_IO_ERROR, 0};
    ParcelPtr parcel = makeParcel(UNSET_CB);
    if (!parcel)
        return {RPC_PORT_ERROR_OUT_OF_MEMORY, 0};
    return call(parcel.get(), _mainPort);
}

int MessageProxy::send(bundle *request) {
    if (!_mainPort)
        return RPC_PORT_ERROR_IO_ERROR;
    ParcelPtr parcel = makeParcel(SEND);
    if (!parcel)
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    int error = rpc_port_parcel_write_bundle(parcel.get(), request);
    if (error != RPC_PORT_ERROR_NONE)
        return error;
    return rpc_port_parcel_send(parcel.get(), _mainPort);
}

void MessageProxy::_connectedCb(const char *, const char *, rpc_port_h port, void *data) {
    auto *self = static_cast<MessageProxy *>(data);
    self->_mainPort = port;
    fire(self->events.connected);
}

void MessageProxy::_rejectedCb(const char *, const char *, void *data) {
    fire(static_cast<MessageProxy *>(data)->events.rejected);
}

void MessageProxy::_disconnectedCb(const char *, const char *, void *data) {
    auto *self = static_cast<MessageProxy *>(data);
    self->_mainPort = nullptr;
    fire(self->events.disconnected);
}

void MessageProxy::_receivedCb(const char *, const char *, void *data) {
    auto *self = static_cast<MessageProxy *>(data);
    Answer answer;
    if (const char *reason = takeAnswer(self->_handle, answer))
        fire(self->events.malformed, reason);
    else
        fire(self->events.answered, answer);
}

} // namespace nelvo::client
