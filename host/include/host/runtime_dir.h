/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_RUNTIME_DIR_H
#define HOST_RUNTIME_DIR_H

#include <host/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** The version of the protocol that the sockets there speak. */
#define HOST_PROTOCOL_VERSION 1

/** Returns the value of an environment variable, or NULL when the variable is not set. The value
 * must stay valid until the next call. */
typedef const char *(*host_environment)(const char *name, void *data);

/**
 * The directory where a process with the given environment puts its sockets, without a slash at the
 * end. The directory need not exist, and a relative path is relative to that process's working
 * directory.
 *
 * @param lookup  reads that environment; NULL for this process's own
 * @param data    passed to lookup
 *
 * @return the path, the caller's to free(); NULL when memory ran out
 */
HOST_API char *host_runtime_dir(host_environment lookup, void *data);

#ifdef __cplusplus
}
#endif

#endif
