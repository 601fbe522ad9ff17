// SPDX-License-Identifier: Apache-2.0
#include <rpc-port-parcel.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "allocation_faults.h"
#include "parcel_values.h"

namespace {

using namespace std::string_literals;

using nelvo::testkit::bytesOf;
using nelvo::testkit::parcelOf;
using Bytes = std::string;
using Bundle = std::unique_ptr<bundle, decltype(&bundle_free)>;

const auto number = [](std::size_t n) { return Bytes(reinterpret_cast<char *>(&n), 4); };
const auto sized = [](const Bytes &bytes) { return number(bytes.size()) + bytes; };
const auto text = [](const Bytes &bytes) { return sized(bytes + '\0'); };

const Bytes EXAMPLE = number(3) + "\1" + text("str") + text("texts") + "\2" + text("array") +
                      number(2) + text("one") + text("") + "\3" + text("byte") + sized("\0\1"s);

Bytes encoded(const Bundle &b) {
    host::Parcel parcel;
    EXPECT_EQ(rpc_port_parcel_write_bundle(&parcel, b.get()), 0);
    return bytesOf(parcel).substr(4);
}

// Null: refused.
Bundle decoded(const Bytes &bytes) {
    host::Parcel parcel = parcelOf(sized(bytes));
    bundle *b = nullptr;
    const int result = rpc_port_parcel_read_bundle(&parcel, &b);
    EXPECT_EQ(b != nullptr ? 0 : RPC_PORT_ERROR_IO_ERROR, result);
    EXPECT_EQ(b != nullptr ? parcel.bytes.size() : 0, parcel.readPosition);
    return Bundle(b, bundle_free);
}

TEST(ParcelTest, RefusesNullArgumentsAndWhatIsNotAWholeValue) {
    rpc_port_parcel_h h = nullptr;
    int i = 7;
    bool flag = true;
    char *str = nullptr;
    ASSERT_EQ(0, rpc_port_parcel_create(&h));
    for (const int result :
         {rpc_port_parcel_create(nullptr), rpc_port_parcel_destroy(nullptr),
          rpc_port_parcel_write_string(h, nullptr), rpc_port_parcel_read_bundle(h, nullptr)})
        EXPECT_EQ(result, RPC_PORT_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(rpc_port_parcel_read_int32(h, &i), RPC_PORT_ERROR_IO_ERROR);
    EXPECT_EQ(rpc_port_parcel_write_int32(h, 2), 0);
    EXPECT_EQ(rpc_port_parcel_read_bool(h, &flag), RPC_PORT_ERROR_IO_ERROR);
    EXPECT_EQ(rpc_port_parcel_destroy(h), 0);
    for (const Bytes &bytes : {""s, number(0), number(4) + "abcd", number(4) + "a\0b\0"s,
                               number(4) + "abc", number(UINT32_MAX) + "abc\0"s}) {
        host::Parcel parcel = parcelOf(bytes);
        EXPECT_EQ(rpc_port_parcel_read_string(&parcel, &str), RPC_PORT_ERROR_IO_ERROR);
        EXPECT_EQ(0u, parcel.readPosition);
    }
    EXPECT_TRUE(i == 7 && flag && str == nullptr);
}

// A bundle has one encoding: damage that goes unnoticed must at least come out as it went in.
TEST(ParcelTest, TakesBundlesLiterallyOrNotAtAll) {
    for (std::size_t at = 0; at < EXAMPLE.size(); ++at) {
        EXPECT_EQ(nullptr, decoded(EXAMPLE.substr(0, at))) << at;
        Bytes damaged = EXAMPLE;
        for (int change = 1; change <= 256; ++change) {
            damaged[at]++;
            const Bundle b = decoded(damaged);
            EXPECT_TRUE(b == nullptr ? change < 256 : encoded(b) == damaged) << at << change;
        }
    }
    const Bytes good = "\1" + text("k") + text("v");
    EXPECT_EQ(nullptr, decoded(number(1) + good + '\0')) << "a byte too many";
    EXPECT_EQ(nullptr, decoded(number(2) + good + good)) << "a key twice";
    EXPECT_EQ(nullptr, decoded(number(1) + "\1" + text("") + text("v"))) << "no key";
    EXPECT_EQ(nullptr, decoded(number(1) + "\3" + text("k") + number(0))) << "no bytes";
}

TEST(ParcelTest, IsUnchangedLikeTheBundleWhenAnAllocationFails) {
    const Bundle original(bundle_create(), bundle_free);
    for (int i = 0; i < 16; ++i) // the next one starts the index
        EXPECT_EQ(bundle_add_str(original.get(), ("key" + std::to_string(i)).c_str(), "v"), 0);
    const auto failEach = [&](int (*operation)(bundle *, rpc_port_parcel_h)) {
        int result = RPC_PORT_ERROR_OUT_OF_MEMORY;
        for (int nth = 1; result != 0; ++nth) {
            const Bundle b(bundle_dup(original.get()), bundle_free);
            host::Parcel parcel = parcelOf(sized(EXAMPLE));
            nelvo::testkit::failAllocation(nth);
            result = operation(b.get(), &parcel);
            const bool hasFailed = nelvo::testkit::stopFailingAllocations() > 0;
            ASSERT_EQ(hasFailed || nth == 1 ? RPC_PORT_ERROR_OUT_OF_MEMORY : 0, result);
            EXPECT_TRUE(result == 0 || encoded(original) == encoded(b));
            EXPECT_TRUE(result == 0 || bytesOf(parcel) == sized(EXAMPLE));
        }
    };
    static const char *texts[] = {"one", "two"};
    failEach([](auto b, auto) { return bundle_add_str(b, "new", "v"); });
    failEach([](auto b, auto) { return bundle_add_str_array(b, "new", texts, 2); });
    failEach([](auto b, auto parcel) { return rpc_port_parcel_write_bundle(parcel, b); });
    failEach([](auto, auto parcel) {
        bundle *b = nullptr;
        const int result = rpc_port_parcel_read_bundle(parcel, &b);
        bundle_free(b);
        return result;
    });
}

} // namespace
