/* SPDX-License-Identifier: Apache-2.0 */
#ifndef RPC_PORT_H
#define RPC_PORT_H

#include <host/export.h>
#include <rpc-port-parcel.h>

/*
 * Remote calls between applications: a stub serves a named port, a proxy connects to it.
 *
 * A connection has two ports: the main port carries requests and their replies, the callback port
 * carries what the served application sends on its own. Parcels arrive whole and in order; sending
 * never blocks. All events come from the main loop, and everything here may be called from inside
 * them, the destruction of the object whose event it is included.
 *
 * Strings given to a callback are valid until it returns; strings given to a function are copied.
 * Main-loop thread only.
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef void *rpc_port_stub_h;
typedef void *rpc_port_proxy_h;

typedef enum { RPC_PORT_PORT_MAIN = 0, RPC_PORT_PORT_CALLBACK = 1 } rpc_port_port_type_e;

/** A client has connected or disconnected. instance names the connection and is never reused. */
typedef void (*rpc_port_stub_connected_event_cb)(const char *sender, const char *instance,
                                                 void *data);
typedef void (*rpc_port_stub_disconnected_event_cb)(const char *sender, const char *instance,
                                                    void *data);

/**
 * A parcel has arrived on port, the client's main port. Take it with
 * rpc_port_parcel_create_from_port(); otherwise it is dropped.
 *
 * @return 0; any other value ends this connection
 */
typedef int (*rpc_port_stub_received_event_cb)(const char *sender, const char *instance,
                                               rpc_port_h port, void *data);

/** The connection has been established; port is its main port. */
typedef void (*rpc_port_proxy_connected_event_cb)(const char *receiver, const char *port_name,
                                                  rpc_port_h port, void *data);
/** The connection has ended. */
typedef void (*rpc_port_proxy_disconnected_event_cb)(const char *receiver, const char *port_name,
                                                     void *data);
/** The connection has ended before it was established. */
typedef void (*rpc_port_proxy_rejected_event_cb)(const char *receiver, const char *port_name,
                                                 void *data);
/** A parcel has arrived on the callback port. A parcel that is not taken is dropped. */
typedef void (*rpc_port_proxy_received_event_cb)(const char *receiver, const char *port_name,
                                                 void *data);

/**
 * @param port_name  1 to 127 of A-Z a-z 0-9 . _ -, not starting with . or - and without ".."
 * @return RPC_PORT_ERROR_INVALID_PARAMETER for a bad name, RPC_PORT_ERROR_OUT_OF_MEMORY
 */
HOST_API int rpc_port_stub_create(rpc_port_stub_h *h, const char *port_name);

/**
 * Stops listening and ends every connection. Afterwards no callback of this stub is called, not
 * even disconnected, and its port handles are invalid.
 */
HOST_API int rpc_port_stub_destroy(rpc_port_stub_h h);

/**
 * Lets clients connect, under the process's app id.
 *
 * @return RPC_PORT_ERROR_IO_ERROR           no app id, no usable runtime directory, or another
 *                                           process serves this port under this id (see the log)
 *         RPC_PORT_ERROR_INVALID_PARAMETER  it listens already
 */
HOST_API int rpc_port_stub_listen(rpc_port_stub_h h);

/** Callbacks of one kind are called in the order in which they were added. */
HOST_API int rpc_port_stub_add_connected_event_cb(rpc_port_stub_h h,
                                                  rpc_port_stub_connected_event_cb cb, void *data);
HOST_API int rpc_port_stub_add_disconnected_event_cb(rpc_port_stub_h h,
                                                     rpc_port_stub_disconnected_event_cb cb,
                                                     void *data);
HOST_API int rpc_port_stub_add_received_event_cb(rpc_port_stub_h h,
                                                 rpc_port_stub_received_event_cb cb, void *data);

/**
 * Returns a port of one connection. The port belongs to the stub and is valid until the
 * connection's disconnected callbacks have returned; using it later returns an error.
 *
 * @return RPC_PORT_ERROR_INVALID_PARAMETER  no such instance or type
 */
HOST_API int rpc_port_stub_get_port(rpc_port_stub_h h, rpc_port_port_type_e type,
                                    const char *instance, rpc_port_h *port);

HOST_API int rpc_port_proxy_create(rpc_port_proxy_h *h);

/** Ends the connection. Afterwards no callback is called and the port handles are invalid. */
HOST_API int rpc_port_proxy_destroy(rpc_port_proxy_h h);

/**
 * Starts to connect. Exactly one connected or rejected event follows.
 *
 * @return RPC_PORT_ERROR_IO_ERROR            nobody serves this port under this id, or no app id of
 *                                            our own
 *         RPC_PORT_ERROR_PERMISSION_DENIED   another user serves it
 *         RPC_PORT_ERROR_INVALID_PARAMETER   a bad name, or it is connected or connecting already
 */
HOST_API int rpc_port_proxy_connect(rpc_port_proxy_h h, const char *appid, const char *port);

HOST_API int rpc_port_proxy_add_connected_event_cb(rpc_port_proxy_h h,
                                                   rpc_port_proxy_connected_event_cb cb,
                                                   void *data);
HOST_API int rpc_port_proxy_add_disconnected_event_cb(rpc_port_proxy_h h,
                                                      rpc_port_proxy_disconnected_event_cb cb,
                                                      void *data);
HOST_API int rpc_port_proxy_add_rejected_event_cb(rpc_port_proxy_h h,
                                                  rpc_port_proxy_rejected_event_cb cb, void *data);
HOST_API int rpc_port_proxy_add_received_event_cb(rpc_port_proxy_h h,
                                                  rpc_port_proxy_received_event_cb cb, void *data);

/** @return RPC_PORT_ERROR_INVALID_PARAMETER for another type, RPC_PORT_ERROR_IO_ERROR unless
 * connected */
HOST_API int rpc_port_proxy_get_port(rpc_port_proxy_h h, rpc_port_port_type_e type,
                                     rpc_port_h *port);

#ifdef __cplusplus
}
#endif

#endif
