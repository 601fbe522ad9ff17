/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_RPC_PORT_PARCEL_H
#define HOST_RPC_PORT_PARCEL_H

#include <stdbool.h>

#include <bundle.h>
#include <host/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** One direction of a connection. Belongs to the stub or proxy that returned it. */
typedef void *rpc_port_h;

/** A message under construction or being read. One parcel belongs to one thread at a time. */
typedef void *rpc_port_parcel_h;

typedef enum {
    RPC_PORT_ERROR_NONE = 0,
    RPC_PORT_ERROR_IO_ERROR = -5,
    RPC_PORT_ERROR_OUT_OF_MEMORY = -12,
    RPC_PORT_ERROR_PERMISSION_DENIED = -13,
    RPC_PORT_ERROR_INVALID_PARAMETER = -22
} rpc_port_error_e;

/**
 * Creates an empty parcel, the caller's to rpc_port_parcel_destroy().
 *
 * @return RPC_PORT_ERROR_NONE
 *         RPC_PORT_ERROR_INVALID_PARAMETER  h is null
 *         RPC_PORT_ERROR_OUT_OF_MEMORY      *h is untouched
 */
HOST_API int rpc_port_parcel_create(rpc_port_parcel_h *h);

/**
 * Takes one whole parcel from the port; the caller destroys it with rpc_port_parcel_destroy().
 *
 * @return RPC_PORT_ERROR_NONE
 *         RPC_PORT_ERROR_IO_ERROR           no whole parcel has arrived; *h is untouched
 *         RPC_PORT_ERROR_INVALID_PARAMETER  h or port is null, or the port's connection has ended
 *         RPC_PORT_ERROR_OUT_OF_MEMORY      *h is untouched
 */
HOST_API int rpc_port_parcel_create_from_port(rpc_port_parcel_h *h, rpc_port_h port);

/**
 * Sends what has been written to the parcel as one message. The parcel stays the caller's and can
 * be sent again.
 *
 * @return RPC_PORT_ERROR_NONE
 *         RPC_PORT_ERROR_IO_ERROR           the other side is gone or does not keep up
 *         RPC_PORT_ERROR_INVALID_PARAMETER  h or port is null, or the port's connection has ended
 *         RPC_PORT_ERROR_OUT_OF_MEMORY      nothing was sent
 */
HOST_API int rpc_port_parcel_send(rpc_port_parcel_h h, rpc_port_h port);

/** Frees a parcel. RPC_PORT_ERROR_INVALID_PARAMETER for null. */
HOST_API int rpc_port_parcel_destroy(rpc_port_parcel_h h);

/**
 * Appends a value, copied. On failure the parcel is as it was.
 *
 * @return RPC_PORT_ERROR_NONE
 *         RPC_PORT_ERROR_INVALID_PARAMETER  the handle, text or bundle is null, or the text or
 *                                           bundle is of 2 GiB or more
 *         RPC_PORT_ERROR_OUT_OF_MEMORY
 */
HOST_API int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i);
HOST_API int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b);
HOST_API int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char *str);
HOST_API int rpc_port_parcel_write_bundle(rpc_port_parcel_h h, bundle *b);

/**
 * Consumes the next value, in the order of writing. On failure neither the argument nor the place
 * of reading changes. A text read is the caller's to free(), a bundle read to bundle_free().
 *
 * @return RPC_PORT_ERROR_NONE
 *         RPC_PORT_ERROR_IO_ERROR           what comes next is not a whole, well-formed value of
 *                                           that type
 *         RPC_PORT_ERROR_INVALID_PARAMETER  an argument is null
 *         RPC_PORT_ERROR_OUT_OF_MEMORY
 */
HOST_API int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int *i);
HOST_API int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool *b);
HOST_API int rpc_port_parcel_read_string(rpc_port_parcel_h h, char **str);
HOST_API int rpc_port_parcel_read_bundle(rpc_port_parcel_h h, bundle **b);

#ifdef __cplusplus
}
#endif

#endif
