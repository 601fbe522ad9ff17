// SPDX-License-Identifier: Apache-2.0
#include "log.h"

#include <exception>
#include <new>

#include <cxxabi.h>

#include <nelvo.h>

namespace nelvo {

// The exception that unwinds a thread is no object, which the sanitizer takes for a mistake.
__attribute__((no_sanitize("null"))) int logException(const char *function) {
    try {
        throw;
    } catch (const abi::__forced_unwind &) {
        throw; // GCOVR_EXCL_LINE: gcov does not count what leaves so
    } catch (const std::bad_alloc &) {
        NELVO_LOG(DLOG_ERROR, function, "out of memory");
        return NELVO_ERROR_OUT_OF_MEMORY;
    } catch (const std::exception &error) {
        NELVO_LOG(DLOG_ERROR, function, "unexpected exception: %s", error.what());
    } catch (...) {
        NELVO_LOG(DLOG_ERROR, function, "unexpected exception");
    }
    return NELVO_ERROR_OPERATION_FAILED;
}

} // namespace nelvo
