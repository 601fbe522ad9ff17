// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <bundle.h>
#include <rpc-port.h>

namespace rpc_port {
namespace message {

// Owns one platform bundle, or none.
class Bundle {
public:
    explicit Bundle(bundle *handle) : _handle(handle) {}
    Bundle(const Bundle &other) : _handle(other._handle ? bundle_dup(other._handle) : nullptr) {}
    Bundle(Bundle &&other) noexcept : _handle(std::exchange(other._handle, nullptr)) {}
    Bundle &operator=(Bundle other) noexcept {
        std::swap(_handle, other._handle);
        return *this;
    }
    ~Bundle() {
        if (_handle)
            bundle_free(_handle);
    }

    // The bundle stays this object's.
    bundle *GetHandle() const { return _handle; }

private:
    bundle *_handle;
};

namespace stub {

class Exception {};
class NotConnectedSocketException : public Exception {};
class InvalidCallbackException : public Exception {};
class InvalidIOException : public Exception {};

// The server side of the "message" interface: accepts clients, turns their parcels into calls of
// one service per connection, and sends answers back through the callbacks that clients registered.
//
// Wire format. Every parcel begins with an int32 that says what follows:
//   0 Result    to the client, on the port of the request: int32, what the method returned
//   1 Callback  to the client, on its callback port: callback fields, string, bundle
//   2 SetCB     from the client: callback fields. Answered with a Result
//   3 UnsetCB   from the client: nothing more. Answered with a Result
//   4 Send      from the client: bundle. Not answered
// The callback fields are int32 id, int32 sequence number, bool once.
//
// Owns the platform's stub, the factory and the services. Main-loop thread only, except the
// sequence numbers of callbacks. A service may destroy the stub from inside Send().
class message {
public:
    // What identifies a callback of the client: the callback fields on the wire.
    class CallbackBase {
    public:
        CallbackBase(int id, bool once) : _id(id), _seqId(seq_num_.fetch_add(1)), _once(once) {}
        virtual ~CallbackBase() = default;

        int GetId() const { return _id; }
        int GetSeqId() const { return _seqId; }
        bool IsOnce() const { return _once; }
        std::string GetTag() const; // "id::sequence number"

    private:
        friend void *operator<<(void *parcel, const CallbackBase &callback);
        friend void *operator>>(void *parcel, CallbackBase &callback);

        static std::atomic<std::int32_t> seq_num_;

        std::int32_t _id;
        std::int32_t _seqId;
        bool _once; // true: may be invoked only once
    };

    class ServiceBase;

    // The client's response callback: calls it while the connection lasts, throws afterwards.
    class ResponseCB : public CallbackBase {
    public:
        // The port stays the connection's; null if the client has none.
        ResponseCB(rpc_port_h port, std::weak_ptr<ServiceBase> service);

        // Sends text and response to the client.
        //
        // Throws NotConnectedSocketException if there is no port or the connection has ended,
        // InvalidCallbackException if a callback for one use has been used, and
        // InvalidIOException if the parcel cannot be built; nothing has been sent then.
        void Invoke(std::string text, Bundle response);

    private:
        rpc_port_h _port;
        std::weak_ptr<ServiceBase> _service;
        bool _valid = true; // false once it has been invoked
    };

    // Receives a client's calls; one object per connection.
    class ServiceBase {
    public:
        class Factory {
        public:
            virtual std::unique_ptr<ServiceBase> CreateService(std::string sender,
                                                               std::string instance) = 0;

        protected:
            ~Factory() = default; // kept in a shared_ptr that knows the concrete type
        };

        ServiceBase(std::string sender, std::string instance)
            : _sender(std::move(sender)), _instance(std::move(instance)) {}
        virtual ~ServiceBase() = default;

        virtual void OnCreate() = 0;
        virtual void OnTerminate() = 0;
        virtual int SetCB(std::unique_ptr<ResponseCB> callback) = 0;
        virtual int UnsetCB() = 0;
        virtual void Send(Bundle request) = 0;

        const std::string &GetSender() const { return _sender; }
        const std::string &GetInstance() const { return _instance; }

    private:
        friend class message;

        std::string _sender;
        std::string _instance;
        // To be called when the connection ends: its ports are no longer valid, though a call in
        // progress may still hold the service.
        bool _connected = true;
    };

    // Throws InvalidIOException if the platform refuses the stub.
    message();
    message(const message &) = delete;
    message &operator=(const message &) = delete;
    ~message();

    // Accepts clients from now on. Throws InvalidIOException if the platform returns an I/O or an
    // invalid-parameter error; any other error is only logged.
    void Listen(std::shared_ptr<ServiceBase::Factory> factory);

private:
    static void OnConnectedCB(const char *sender, const char *instance, void *data);
    static void OnDisconnectedCB(const char *sender, const char *instance, void *data);
    static int OnReceivedCB(const char *sender, const char *instance, rpc_port_h port, void *data);

    std::shared_ptr<ServiceBase> FindService(std::string_view instance) const;
    static void Terminate(ServiceBase &service);

    rpc_port_stub_h _stub = nullptr;
    std::shared_ptr<ServiceBase::Factory> _factory;
    using Services = std::list<std::shared_ptr<ServiceBase>>;
    Services _services; // in the order of their connections
    std::multimap<std::string_view, Services::iterator> _byInstance; // equal ones in that order
};

// Writes the callback fields; throws InvalidIOException if one cannot be written.
void *operator<<(void *parcel, const message::CallbackBase &callback);

// Reads the callback fields; one that cannot be read keeps its value.
void *operator>>(void *parcel, message::CallbackBase &callback);

} // namespace stub
} // namespace message
} // namespace rpc_port
