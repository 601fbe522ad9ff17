// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <rpc-port-parcel.h>

#include "parcel.h"

// Parcels made from any bytes, and back.
namespace nelvo::testkit {

inline host::Parcel parcelOf(const std::string &bytes) {
    host::Parcel parcel;
    parcel.bytes.append(bytes.data(), bytes.size());
    return parcel;
}

// All that has been written to it.
inline std::string bytesOf(const host::Parcel &parcel) {
    std::string bytes;
    parcel.forEachPiece([&](const host::Memory &, const void *data, std::size_t size) {
        bytes.append(static_cast<const char *>(data), size);
    });
    return bytes;
}

} // namespace nelvo::testkit
