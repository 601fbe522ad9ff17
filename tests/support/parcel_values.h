// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <optional>
#include <string>

#include <rpc-port-parcel.h>

#include "client/envelope.h"
#include "parcel.h"

// Parcels as values, made from any bytes and read one value after the other. What cannot be read is
// empty and leaves the parcel where it is.
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

inline std::optional<int> readInt(host::Parcel &parcel) {
    int value = 0;
    return rpc_port_parcel_read_int32(&parcel, &value) == 0 ? std::optional(value) : std::nullopt;
}

inline std::optional<bool> readBool(host::Parcel &parcel) {
    bool value = false;
    return rpc_port_parcel_read_bool(&parcel, &value) == 0 ? std::optional(value) : std::nullopt;
}

inline std::optional<std::string> readText(host::Parcel &parcel) {
    char *text = nullptr;
    if (rpc_port_parcel_read_string(&parcel, &text) != RPC_PORT_ERROR_NONE)
        return std::nullopt;
    const std::unique_ptr<char, void (*)(void *)> owner(text, std::free);
    return text;
}

inline client::BundlePtr readBundle(host::Parcel &parcel) {
    bundle *b = nullptr;
    rpc_port_parcel_read_bundle(&parcel, &b);
    return client::BundlePtr(b);
}

} // namespace nelvo::testkit
