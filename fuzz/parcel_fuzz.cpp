// SPDX-License-Identifier: Apache-2.0
// A line of letters, each a value to be read, then the parcel. What is read, written again, are the
// bytes that it was read from; what is refused leaves the parcel where it is.
#include "fuzzing.h"
#include "parcel_values.h"

using namespace nelvo::testkit;

// What is read, written to a parcel of its own; nothing when it cannot be read.
static host::Parcel copyValue(char type, host::Parcel &from) {
    host::Parcel copy;
    if (type == 'i') {
        if (const auto value = readInt(from))
            rpc_port_parcel_write_int32(&copy, *value);
    } else if (type == 'b') {
        if (const auto value = readBool(from))
            rpc_port_parcel_write_bool(&copy, *value);
    } else if (type == 's') {
        if (const auto value = readText(from))
            rpc_port_parcel_write_string(&copy, value->c_str());
    } else if (const auto value = readBundle(from)) {
        rpc_port_parcel_write_bundle(&copy, value.get());
    }
    return copy;
}

// Whether the value is there; of a bundle, whether its bytes are.
static bool isThere(char type, const std::string &bytes) {
    host::Parcel parcel = parcelOf(bytes);
    const std::size_t size = static_cast<std::uint32_t>(readInt(parcel).value_or(-1));
    if (type == 'b')
        return !bytes.empty() && (bytes[0] == 0 || bytes[0] == 1);
    if (type == 'i' || bytes.size() < 4)
        return bytes.size() >= 4;
    return size <= bytes.size() - 4 &&
           (type != 's' || (size > 0 && bytes.find('\0', 4) == 3 + size));
}

void nelvo::testkit::fuzz(Input input) {
    const std::string types = input.line();
    std::string left = input.rest();
    host::Parcel from = parcelOf(left);
    for (const char type : types) {
        const bool there = isThere(type, left),
                   isBundle = std::string("ibs").find(type) == std::string::npos;
        const std::string copy = bytesOf(copyValue(type, from));
        require(copy.empty() ? !there || isBundle : there, "what can be read");
        require(left.substr(0, copy.size()) == copy, "the value");
        left.erase(0, copy.size());
        require(from.readPosition + left.size() == from.bytes.size(), "the place in the parcel");
    }
}
