// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <dlog.h>

// One line of the library's log: a printf format, as a literal, and its values.
#define NELVO_LOGD(...) NELVO_LOG(DLOG_DEBUG, __func__, __VA_ARGS__)
#define NELVO_LOGI(...) NELVO_LOG(DLOG_INFO, __func__, __VA_ARGS__)
#define NELVO_LOGE(...) NELVO_LOG(DLOG_ERROR, __func__, __VA_ARGS__)

// The same for a helper, which logs under the name of the function that called it.
#define NELVO_LOG(priority, function, ...)                                                         \
    do {                                                                                           \
        if (false)                                                                                 \
            ::nelvo::checkLogFormat(__VA_ARGS__);                                                  \
        ::nelvo::logLine(priority, __LINE__, function, "%s %d %s(): " __VA_ARGS__);                \
    } while (false)

namespace nelvo {

// Never called: lets the compiler compare a format with its values.
__attribute__((format(printf, 1, 2))) inline void checkLogFormat(const char *, ...) {}

// Passes the values on unformatted: the platform formats only the lines that its level admits.
template <typename... Values>
void logLine(log_priority priority, int line, const char *function, const char *format,
             Values... values) {
    // The version is that of the log's lines, which tools look for; it does not follow the project's.
    dlog_print(priority, "NELVO-APPSDK", format, "v1.0-beta.1.4 : ", line, function, values...);
}

// To be called from a catch block: logs the exception as an error of the given function and gives
// its error code, NELVO_ERROR_OUT_OF_MEMORY or NELVO_ERROR_OPERATION_FAILED. Throws only what unwinds the
// stack of a thread that ends, by pthread_exit() or cancellation; the process would be aborted otherwise.
int logException(const char *function);

// Calls the application on behalf of the given function. What the application throws ends here, in an
// error line; the request stays pending.
template <typename Callback, typename... Arguments>
void callApplication(const char *function, Callback callback, Arguments... arguments) {
    try {
        callback(arguments...);
    } catch (...) {
        logException(function);
    }
}

} // namespace nelvo
