// SPDX-License-Identifier: Apache-2.0 Once as an encoded bundle: what is accepted is encoded to the
// same bytes again, and each key leads to its entry. Once as lines that become a bundle's entries:
// it can be sent and received.
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

static void check(const host::Parcel &encoded, bool isKnownGood) {
    host::Parcel from = parcelOf(bytesOf(encoded)), to;
    bundle *received = nullptr;
    rpc_port_parcel_read_bundle(&from, &received);
    const nelvo::client::BundlePtr b(received);
    require(b || !isKnownGood, "whether a bundle is accepted");
    if (b)
        rpc_port_parcel_write_bundle(&to, b.get());
    require(!b || bytesOf(to) == bytesOf(encoded), "what has been decoded, encoded again");
    bundle_foreach(b.get(), checkEntry, b.get());
}

void nelvo::testkit::fuzz(Input input) {
    const std::string bytes = Input(input).rest();
    host::Parcel parcel, sent;
    rpc_port_parcel_write_int32(&parcel, static_cast<int>(bytes.size()));
    parcel.bytes.append(bytes.data(), bytes.size());
    check(parcel, false);

    const client::BundlePtr made(bundle_create());
    while (!input.isEmpty()) {
        const std::string key = input.line(), value = input.line();
        const char *texts[] = {value.c_str(), "", key.c_str()};
        value[0] == 'b'   ? bundle_add_byte(made.get(), texts[2], value.data(), value.size())
        : value[0] == 'a' ? bundle_add_str_array(made.get(), texts[2], texts, 3)
                          : bundle_add_str(made.get(), texts[2], texts[0]);
    }
    rpc_port_parcel_write_bundle(&sent, made.get());
    check(sent, true);
}
