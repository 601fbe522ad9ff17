// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <new>

#include <rpc-port-parcel.h>

namespace host {

// Runs what an exported function does, and turns a lack of memory into its error code.
template <typename Work>
int guarded(Work work) {
    try {
        return work();
    } catch (const std::bad_alloc &) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    } catch (...) {
        return RPC_PORT_ERROR_IO_ERROR;
    }
}

} // namespace host
