// SPDX-License-Identifier: Apache-2.0
#include "message.h"

#include <cstdlib>
#include <exception>
#include <new>

#include <dlog.h>
#include <rpc-port-parcel.h>

namespace rpc_port {
namespace message {
namespace stub {
namespace {

enum Method : std::int32_t { RESULT = 0, CALLBACK = 1, SET_CB = 2, UNSET_CB = 3, SEND = 4 };

constexpr const char *PORT_NAME = "message";

constexpr const char *baseName(const char *path) {
    const char *name = path;
    for (const char *at = path; *at; ++at)
        if (*at == '/')
            name = at + 1;
    return name;
}

constexpr const char *FILE_NAME = baseName(__FILE__);

template <typename... Values>
void logLine(const char *function, int line, const char *format, Values... values) {
    dlog_print(DLOG_ERROR, "RPC_PORT_STUB", format, FILE_NAME, function, line, values...);
}

#define LOG_ERROR(...) logLine(__func__, __LINE__, "%s: %s(%d) > " __VA_ARGS__)

// Owns a parcel, or none.
class Parcel {
public:
    Parcel() = default;
    Parcel(const Parcel &) = delete;
    Parcel &operator=(const Parcel &) = delete;
    ~Parcel() {
        if (_handle)
            rpc_port_parcel_destroy(_handle);
    }

    int create() { return keep(rpc_port_parcel_create(&_handle)); }
    int takeFrom(rpc_port_h port) { return keep(rpc_port_parcel_create_from_port(&_handle, port)); }
    rpc_port_parcel_h handle() const { return _handle; }

private:
    int keep(int error) {
        if (error != RPC_PORT_ERROR_NONE)
            _handle = nullptr;
        return error;
    }

    rpc_port_parcel_h _handle = nullptr;
};

int sendResult(const Parcel &reply, rpc_port_h port, int result) {
    if (rpc_port_parcel_write_int32(reply.handle(), RESULT) != RPC_PORT_ERROR_NONE ||
        rpc_port_parcel_write_int32(reply.handle(), result) != RPC_PORT_ERROR_NONE)
        return -1;
    rpc_port_parcel_send(reply.handle(), port);
    return 0;
}

void require(int result) {
    if (result != RPC_PORT_ERROR_NONE)
        throw InvalidIOException();
}

} // namespace

std::atomic<std::int32_t> message::CallbackBase::seq_num_{0};

std::string message::CallbackBase::GetTag() const {
    return std::to_string(_id) + "::" + std::to_string(_seqId);
}

void *operator<<(void *parcel, const message::CallbackBase &callback) {
    require(rpc_port_parcel_write_int32(parcel, callback._id));
    require(rpc_port_parcel_write_int32(parcel, callback._seqId));
    require(rpc_port_parcel_write_bool(parcel, callback._once));
    return parcel;
}

void *operator>>(void *parcel, message::CallbackBase &callback) {
    // A field that cannot be read, or is not stored, stays as it is.
    int id = callback._id;
    int seqId = callback._seqId;
    bool once = callback._once;
    if (rpc_port_parcel_read_int32(parcel, &id) == RPC_PORT_ERROR_NONE)
        callback._id = id;
    if (rpc_port_parcel_read_int32(parcel, &seqId) == RPC_PORT_ERROR_NONE)
        callback._seqId = seqId;
    if (rpc_port_parcel_read_bool(parcel, &once) == RPC_PORT_ERROR_NONE)
        callback._once = once;
    return parcel;
}

message::ResponseCB::ResponseCB(rpc_port_h port, std::weak_ptr<ServiceBase> service)
    : CallbackBase(1, false), _port(port), _service(std::move(service)) {}

void message::ResponseCB::Invoke(std::string text, Bundle response) {
    if (!_port)
        throw NotConnectedSocketException();
    if (std::shared_ptr<ServiceBase> service = _service.lock(); !service || !service->_connected)
        throw NotConnectedSocketException();
    if (IsOnce() && !_valid)
        throw InvalidCallbackException();

    Parcel parcel;
    require(parcel.create());
    require(rpc_port_parcel_write_int32(parcel.handle(), CALLBACK));
    parcel.handle() << *this;
    require(rpc_port_parcel_write_string(parcel.handle(), text.c_str()));
    require(rpc_port_parcel_write_bundle(parcel.handle(), response.GetHandle()));
    rpc_port_parcel_send(parcel.handle(), _port);
    _valid = false;
}

message::message() {
    if (rpc_port_stub_create(&_stub, PORT_NAME) != RPC_PORT_ERROR_NONE) {
        LOG_ERROR("Failed to create stub handle");
        throw InvalidIOException();
    }
    if (rpc_port_stub_add_connected_event_cb(_stub, OnConnectedCB, this) != RPC_PORT_ERROR_NONE ||
        rpc_port_stub_add_disconnected_event_cb(_stub, OnDisconnectedCB, this) !=
            RPC_PORT_ERROR_NONE ||
        rpc_port_stub_add_received_event_cb(_stub, OnReceivedCB, this) != RPC_PORT_ERROR_NONE) {
        LOG_ERROR("Failed to register the event callbacks");
        rpc_port_stub_destroy(_stub);
        throw InvalidIOException();
    }
}

message::~message() {
    // Moved out of the list first, so that a disconnected event cannot terminate a service twice.
    _byInstance.clear();
    const auto services = std::exchange(_services, {});
    for (const auto &service : services)
        Terminate(*service);
    rpc_port_stub_destroy(_stub);
}

void message::Listen(std::shared_ptr<ServiceBase::Factory> factory) {
    _factory = std::move(factory);
    const int result = rpc_port_stub_listen(_stub);
    if (result == RPC_PORT_ERROR_NONE)
        return;
    LOG_ERROR("Failed to listen stub");
    if (result == RPC_PORT_ERROR_IO_ERROR || result == RPC_PORT_ERROR_INVALID_PARAMETER)
        throw InvalidIOException();
}

void message::OnConnectedCB(const char *sender, const char *instance, void *data) {
    auto *self = static_cast<message *>(data);
    try {
        std::list<std::shared_ptr<ServiceBase>> created;
        created.emplace_back(self->_factory->CreateService(sender, instance));
        if (!created.front()) {
            LOG_ERROR("Failed to create service for %s, connection ignored", sender);
            return;
        }
        created.front()->OnCreate();
        self->_byInstance.emplace(created.front()->GetInstance(), created.begin());
        self->_services.splice(self->_services.end(), created);
    } catch (const std::exception &error) {
        LOG_ERROR("Failed to create service for %s, connection ignored: %s", sender, error.what());
    }
}

void message::OnDisconnectedCB(const char *, const char *instance, void *data) {
    auto *self = static_cast<message *>(data);
    const std::shared_ptr<ServiceBase> service = self->FindService(instance);
    if (!service)
        return;
    Terminate(*service);
    const auto found = self->_byInstance.lower_bound(instance);
    self->_services.erase(found->second);
    self->_byInstance.erase(found);
}

// The service may destroy the stub: after Send() only local variables are used.
int message::OnReceivedCB(const char *, const char *instance, rpc_port_h port, void *data) {
    auto *self = static_cast<message *>(data);
    const std::shared_ptr<ServiceBase> service = self->FindService(instance);
    if (!service) {
        LOG_ERROR("Failed to find $$ context(%s)", instance);
        return -1;
    }

    rpc_port_h callbackPort = nullptr;
    if (rpc_port_stub_get_port(self->_stub, RPC_PORT_PORT_CALLBACK, instance, &callbackPort) !=
        RPC_PORT_ERROR_NONE) {
        LOG_ERROR("Failed to get callback port");
        callbackPort = nullptr;
    }

    Parcel reply; // before the request, so that it goes after it
    Parcel request;
    const int error = request.takeFrom(port);
    if (error != RPC_PORT_ERROR_NONE) {
        LOG_ERROR("Failed to create parcel from port");
        return error;
    }
    const int replyError = reply.create();

    int method = -1;
    if (rpc_port_parcel_read_int32(request.handle(), &method) != RPC_PORT_ERROR_NONE)
        method = -1;
    switch (method) {
    case SET_CB:
    case UNSET_CB: {
        // Before anything is changed: ends the connection of a client that cannot be answered.
        if (replyError != RPC_PORT_ERROR_NONE) {
            LOG_ERROR("Failed to create reply parcel");
            return replyError;
        }
        if (method == UNSET_CB)
            return sendResult(reply, port, service->UnsetCB());
        std::unique_ptr<ResponseCB> callback(new (std::nothrow) ResponseCB(callbackPort, service));
        if (!callback) {
            LOG_ERROR("Failed to create callback");
            return RPC_PORT_ERROR_OUT_OF_MEMORY;
        }
        request.handle() >> *callback;
        return sendResult(reply, port, service->SetCB(std::move(callback)));
    }
    case SEND: {
        bundle *content = nullptr;
        if (rpc_port_parcel_read_bundle(request.handle(), &content) != RPC_PORT_ERROR_NONE)
            content = nullptr;
        const Bundle owner(content);
        service->Send(owner);
        return 0;
    }
    default:
        LOG_ERROR("Unknown command(%d)", method);
        return -1;
    }
}

std::shared_ptr<message::ServiceBase> message::FindService(std::string_view instance) const {
    const auto found = _byInstance.lower_bound(instance);
    return found == _byInstance.end() || found->first != instance ? nullptr : *found->second;
}

void message::Terminate(ServiceBase &service) {
    service._connected = false;
    service.OnTerminate();
}

} // namespace stub
} // namespace message
} // namespace rpc_port
