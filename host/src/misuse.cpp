// SPDX-License-Identifier: Apache-2.0
#include "misuse.h"

#include <cstdarg>
#include <cstdio>

#include <dlog.h>

#include <host/sim.h>

#include "log_tag.h"

// Defined by the address sanitizer's runtime, if the program has one.
extern "C" __attribute__((weak)) void __asan_init();

namespace host {

namespace {

host_misuse_cb misuseCb = nullptr;

} // namespace

void misuse(const char *format, ...) {
    char sentence[512];
    std::va_list values;
    va_start(values, format);
    std::vsnprintf(sentence, sizeof sentence, format, values);
    va_end(values);
    dlog_print(DLOG_ERROR, LOG_TAG, "%s", sentence);
    if (misuseCb)
        misuseCb(sentence);
}

bool LifeMark::reportUse(const char *function, const char *what) {
    misuse("%s(): the %s has been freed and is left alone: free it once, last, and use what a "
           "callback "
           "is given only inside the callback",
           function, what);
    return false;
}

bool isMemoryChecked() {
    return misuseCb || __asan_init;
}

} // namespace host

void host_sim_on_misuse(host_misuse_cb cb) {
    host::misuseCb = cb;
}
