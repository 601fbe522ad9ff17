// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <memory>
#include <string>

#include <rpc-port.h>

#include "envelope.h"

namespace nelvo::client {

// The callback fields that a client registers; each answer repeats them.
struct CallbackFields {
    int id = 1; // the one kind of callback that the interface knows
    int seq = 0;
    bool once = false; // true: the application may answer through it a single time
};

struct Answer {
    CallbackFields callback;
    std::string sender; // the app id of the application that answers
    Response response;
};

// The first value of every parcel.
enum Method { RESULT = 0, CALLBACK = 1, SET_CB = 2, UNSET_CB = 3, SEND = 4 };

struct ParcelDeleter {
    void operator()(void *parcel) const { rpc_port_parcel_destroy(parcel); }
};
using ParcelPtr = std::unique_ptr<void, ParcelDeleter>;

// Reads a parcel that comes to the callback port. Returns null on success, else a text that says what is
// wrong with the parcel. Throws std::bad_alloc.
const char *readAnswer(rpc_port_parcel_h parcel, Answer &answer);

// The outcome of a method that returns a result.
struct Reply {
    int error = RPC_PORT_ERROR_NONE; // not 0: no reply came, result means nothing
    int result = 0;                  // returned by the application's side of the interface

    bool ok() const { return error == RPC_PORT_ERROR_NONE && result == 0; }
};

// The client's side of one connection to an application's "message" port.
//
//   idle        connect() leads to connecting, or fails and leaves the proxy idle
//   connecting  one of the events connected or rejected follows
//   connected   setCb(), unsetCb() and send() work; ends with the event disconnected
//   ended       every further call fails
//
// If setCb() or unsetCb() returns without a reply, destroy the proxy: a late reply would be taken
// for the reply to the next call.
//
// Events come from the main loop. Each may destroy the proxy; none may throw. setCb() and unsetCb()
// block until the application replies. They must not be called if the application runs on this same
// thread, except on a simulated device, where they run the main loop meanwhile; the proxy must live
// until they return.
//
// Main-loop thread only.
class MessageProxy {
public:
    struct Events {
        std::function<void()> connected;
        std::function<void()> rejected;
        std::function<void()> disconnected;
        std::function<void(const Answer &)> answered;
        std::function<void(const char *reason)> malformed; // what came was no answer; it is dropped
    };
    Events events;

    MessageProxy();
    ~MessageProxy();
    MessageProxy(const MessageProxy &) = delete;
    MessageProxy &operator=(const MessageProxy &) = delete;

    // The platform's handle, owned by this object; null if it could not be created.
    rpc_port_proxy_h handle() const { return _handle; }

    // These return RPC_PORT_ERROR_NONE or the platform's error.
    int
    connect(const std::string &appId); // leaves the system's reason in errno, 0 if there is none
    int send(bundle *request);         // the request stays the caller's

    // The first overload registers with a new sequence number and default fields.
    Reply setCb();
    Reply setCb(const CallbackFields &fields);
    Reply unsetCb();

private:
    static void _connectedCb(const char *, const char *, rpc_port_h port, void *data);
    static void _rejectedCb(const char *, const char *, void *data);
    static void _disconnectedCb(const char *, const char *, void *data);
    static void _receivedCb(const char *, const char *, void *data);

    rpc_port_proxy_h _handle = nullptr;
    rpc_port_h _mainPort = nullptr; // null unless connected; stays the platform's
    int _nextSeq = 0;
};

} // namespace nelvo::client
