/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_DLOG_H
#define HOST_DLOG_H

#include <host/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    DLOG_VERBOSE = 2,
    DLOG_DEBUG = 3,
    DLOG_INFO = 4,
    DLOG_WARN = 5,
    DLOG_ERROR = 6,
    DLOG_FATAL = 7
} log_priority;

/**
 * Writes one log entry to stderr, always as one line.
 *
 * The environment variable NELVO_LOG names the lowest level that is written: verbose, debug, info,
 * warn (the default), error, fatal, or silent for none. It is read at the first entry. Control
 * characters and bytes that are not UTF-8 appear escaped; a text beyond 16 KiB is cut, visibly.
 * When NELVO_LOG_TIME is set, each entry begins with the seconds of the monotonic clock.
 *
 * Any thread; errno stays as it was.
 *
 * @param prio  one of the priorities
 * @param tag   the component that logs
 * @param fmt   printf rules
 *
 * @return the number of bytes written, 0 for an entry below the level, a negative value when an
 *         argument is not valid or the entry could not be written
 */
HOST_API int dlog_print(log_priority prio, const char *tag, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

#endif
