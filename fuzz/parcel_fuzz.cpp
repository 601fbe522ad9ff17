// SPDX-License-Identifier: Apache-2.0
// A line of letters, each a value to be read, then the parcel. What is read, written again, gives the
// bytes that it was read from; what is refused leaves the parcel where it is. In the entries of a
// bundle each key leads to its entry. Then once more with lines that become the entries of a bundle,
// which can be read whatever they are.
#include <cstdlib>
#include <cstring>

#include "client/envelope.h"
#include "fuzzing.h"
#include "parcel_values.h"

using namespace nelvo::testkit;

static void checkEntry(const char *key, const int type, const bundle_keyval_t *kv, void *b) {
    void *value = nullptr;
    std::size_t size = 0;
    bundle_keyval_get_basic_val(const_cast<bundle_keyval_t *>(kv), &value, &size);
    require(bundle_get_type(static_cast<bundle *>(b), key) == type, "the type under a key");
    require(type != BUNDLE_TYPE_STR || std::strlen(static_cast<char *>(value)) + 1 == size,
            "the size of a text");
}

static bool isBundle(char type) {
    return type != 'i' && type != 'b' && type != 's';
}

// What is read, written to a parcel of its own; nothing when it cannot be read.
static host::Parcel copyValue(char type, host::Parcel &from) {
    host::Parcel copy;
    int number = 0;
    bool flag = false;
    char *text = nullptr;
    bundle *b = nullptr;
    if (type == 'i' && rpc_port_parcel_read_int32(&from, &number) == RPC_PORT_ERROR_NONE)
        rpc_port_parcel_write_int32(&copy, number);
    else if (type == 'b' && rpc_port_parcel_read_bool(&from, &flag) == RPC_PORT_ERROR_NONE)
        rpc_port_parcel_write_bool(&copy, flag);
    else if (type == 's' && rpc_port_parcel_read_string(&from, &text) == RPC_PORT_ERROR_NONE)
        rpc_port_parcel_write_string(&copy, text);
    else if (isBundle(type) && rpc_port_parcel_read_bundle(&from, &b) == RPC_PORT_ERROR_NONE)
        rpc_port_parcel_write_bundle(&copy, b);
    bundle_foreach(b, checkEntry, b);
    std::free(text);
    bundle_free(b);
    return copy;
}

// Whether the value is there; of a bundle, whether its bytes are.
static bool isThere(char type, const std::string &bytes) {
    if (type == 'b')
        return !bytes.empty() && (bytes[0] == 0 || bytes[0] == 1);
    if (type == 'i' || bytes.size() < 4)
        return bytes.size() >= 4;
    std::uint32_t size = 0;
    std::memcpy(&size, bytes.data(), sizeof size);
    return size <= bytes.size() - 4 &&
           (type != 's' || (size > 0 && bytes.find('\0', 4) == 3 + size));
}

static void check(const std::string &types, std::string left) {
    host::Parcel from = parcelOf(left);
    for (const char type : types) {
        const bool there = isThere(type, left);
        const std::string copy = bytesOf(copyValue(type, from));
        require(copy.empty() ? !there || isBundle(type) : there, "what can be read");
        require(left.substr(0, copy.size()) == copy, "the value");
        left.erase(0, copy.size());
        require(from.readPosition + left.size() == from.bytes.size(), "the place in the parcel");
    }
}

void nelvo::testkit::fuzz(Input input) {
    const std::string types = input.line();
    check(types, Input(input).rest());
    const client::BundlePtr made(bundle_create());
    while (!input.isEmpty()) {
        const std::string key = input.line(), value = input.line();
        const char *texts[] = {value.c_str(), "", key.c_str()};
        value[0] == 'b'   ? bundle_add_byte(made.get(), texts[2], value.data(), value.size())
        : value[0] == 'a' ? bundle_add_str_array(made.get(), texts[2], texts, 3)
                          : bundle_add_str(made.get(), texts[2], texts[0]);
    }
    host::Parcel parcel;
    rpc_port_parcel_write_bundle(&parcel, made.get());
    const std::string bytes = bytesOf(parcel);
    require(bytesOf(copyValue('B', parcel)) == bytes, "a bundle of lines");
}
