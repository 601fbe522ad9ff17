/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_ACTIONS_H
#define HOST_ACTIONS_H

#include <host/export.h>
#include <host/runtime_dir.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The file where the application of a process with the given environment declares its actions, for
 * tools that look at other processes: what NELVO_HOST_ACTIONS names, else nelvo-actions.json beside
 * the manifest. The platform itself does not read that file. It need not exist, and a relative path
 * is relative to that process's working directory.
 *
 * @param program  the path of that process's executable
 * @param lookup   reads that environment; NULL for this process's own
 * @param data     passed to lookup
 *
 * @return the path, the caller's to free(); NULL when program is null or memory ran out
 */
HOST_API char *host_actions_path(const char *program, host_environment lookup, void *data);

#ifdef __cplusplus
}
#endif

#endif
