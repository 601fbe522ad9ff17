/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_LOG_H
#define HOST_LOG_H

#include <dlog.h>
#include <host/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Receives one log entry: its priority, its tag and the finished text, unescaped and without a
 * line end. */
typedef void (*host_log_sink)(log_priority prio, const char *tag, const char *text, void *data);

/**
 * Sends every entry, whatever its level, to sink instead of stderr; NULL restores stderr.
 *
 * For tests that read the log. The strings are valid only during the call.
 */
HOST_API void host_log_set_sink(host_log_sink sink, void *data);

#ifdef __cplusplus
}
#endif

#endif
