/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_TAP_H
#define HOST_TAP_H

#include <stddef.h>

#include <host/export.h>
#include <rpc-port-parcel.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Whoever starts an application can watch what its served ports receive and send: the environment
 * variable HOST_TAP_VARIABLE is the number of a stream socket that the application inherits. The
 * platform writes each event there when it happens, and waits while the socket is full:
 *
 *     SECONDS EVENT CONNECTION SIZE\n
 *
 * and SIZE bytes. SECONDS are those of the monotonic clock. CONNECTION is the client's id, a colon and
 * a number that no other connection of the process has. EVENT is one of
 *
 *     connected  a client
 *     received   a parcel, which the bytes hold, and which the application gets next
 *     sent       a parcel, to the client's callback port
 *     gone       a client
 */
#define HOST_TAP_VARIABLE "NELVO_HOST_TAP"

/**
 * Makes a parcel of its bytes.
 *
 * @param bytes  its encoding; copied
 * @param size   how many
 *
 * @return the parcel, the caller's to destroy with rpc_port_parcel_destroy(); NULL when memory ran out
 */
HOST_API rpc_port_parcel_h host_parcel_create(const void *bytes, size_t size);

#ifdef __cplusplus
}
#endif

#endif
