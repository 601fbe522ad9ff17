// SPDX-License-Identifier: Apache-2.0
#include "fuzzing.h"

#include <host/log.h>

// What the fuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    host_log_set_sink([](log_priority, const char *, const char *, void *) {}, nullptr);
    nelvo::testkit::fuzz({data, size});
    return 0;
}
