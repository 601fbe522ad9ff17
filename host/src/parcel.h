// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>

#include "memory.h"

namespace host {

// What stands behind an rpc_port_parcel_h: the payload of one frame, written at its end and read
// from its front.
//
// Values stand one after the other, without tags or padding, in the machine's own byte order.
struct Parcel {
    Bytes bytes;
    std::size_t readPosition = 0;
};

} // namespace host
