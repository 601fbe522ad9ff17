// SPDX-License-Identifier: Apache-2.0
// Bundles and their encoding, beside what platform_test asks of every platform.
#include <bundle.h>
#include <rpc-port-parcel.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "allocation_faults.h"
#include "parcel_values.h"

namespace {

using namespace nelvo::testkit;
using namespace std::string_literals;

using Texts = std::vector<std::string>;
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
    EXPECT_EQ(result, b != nullptr ? 0 : RPC_PORT_ERROR_IO_ERROR);
    EXPECT_EQ(parcel.readPosition, b != nullptr ? parcel.bytes.size() : 0);
    return Bundle(b, bundle_free);
}

TEST(BundleTest, KeepsValuesWholeAndAlignedAndRefusesTheRest) {
    const Bundle owner = decoded(EXAMPLE);
    bundle *const b = owner.get();
    const char *texts[] = {"one", nullptr};
    const std::string mebibyte((1 << 20) - 1, 'x');
    std::vector<const char *> twoGibibytes(2048, mebibyte.c_str());
    for (const int result :
         {bundle_add_str(b, "", "v"), bundle_add_byte(b, "k", "v", 0),
          bundle_add_byte(b, "k", "v", SIZE_MAX), bundle_add_str_array(b, "k", texts, 2),
          bundle_add_str_array(b, "k", nullptr, 1), bundle_add_str_array(b, "k", texts, -1),
          bundle_add_str_array(b, "k", twoGibibytes.data(), 2048)})
        EXPECT_EQ(result, BUNDLE_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(encoded(owner), EXAMPLE);

    int len = -7;
    EXPECT_EQ(bundle_get_str_array(b, "byte", &len), nullptr);
    EXPECT_EQ(len, -7);
    const char **const array = bundle_get_str_array(b, "array", &len);
    EXPECT_EQ(Texts(array, array + len), Texts({"one", ""}));
    EXPECT_EQ(array[len], nullptr);
    void *byte = nullptr;
    size_t size = 0;
    EXPECT_EQ(bundle_get_byte(b, "byte", &byte, &size), 0);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(byte) % alignof(std::max_align_t), 0u);
    for (const std::size_t length : {400u, 100000u}) { // in memory that was used before
        EXPECT_EQ(bundle_add_str(b, "long", std::string(length, 'x').c_str()), 0);
        char *str = nullptr;
        EXPECT_EQ(bundle_get_str(b, "long", &str), 0);
        EXPECT_EQ(str, std::string(length, 'x'));
        EXPECT_EQ(bundle_del(b, "long"), 0);
    }
}

TEST(BundleTest, AgreesWithAListAfterAnyChanges) {
    const auto note = [](const char *key, int, const bundle_keyval_t *, void *keys) {
        static_cast<Texts *>(keys)->emplace_back(key);
    };
    std::minstd_rand random;
    for (const unsigned most : {3u, 40u, 200u}) { // few keys, and enough for the index
        Bundle b(bundle_create(), bundle_free);
        Texts expected;
        for (unsigned step = 0; step < most * 30; ++step) {
            const std::string key = std::to_string(random() % most);
            const auto found = std::find(expected.begin(), expected.end(), key);
            const bool adds = step / most % 2 == 0; // alternately: most keys come, most keys go
            const int result =
                adds ? bundle_add_str(b.get(), key.c_str(), "") : bundle_del(b.get(), key.c_str());
            if (found == expected.end()) {
                ASSERT_EQ(result, adds ? 0 : BUNDLE_ERROR_KEY_NOT_AVAILABLE);
                expected.insert(found, adds ? 1 : 0, key);
            } else {
                ASSERT_EQ(result, adds ? BUNDLE_ERROR_KEY_EXISTS : 0);
                expected.erase(found, found + (adds ? 0 : 1));
            }
            if (step % 7 == 0) // a copy is no different
                b.reset(bundle_dup(b.get()));
            Texts keys;
            bundle_foreach(b.get(), note, &keys);
            ASSERT_EQ(keys, expected);
        }
    }
}

TEST(BundleTest, ShowsAnEntryThatTheCallbackRemoves) {
    const Bundle b = decoded(number(1) + "\1" + text("key") + text("value"));
    const auto remove = [](const char *key, int, const bundle_keyval_t *, void *from) {
        EXPECT_EQ(bundle_del(static_cast<bundle *>(from), key), 0);
        EXPECT_STREQ(key, "key");
    };
    bundle_foreach(b.get(), remove, b.get());
    EXPECT_EQ(encoded(b), number(0));
}

// A bundle has one encoding: damage that goes unnoticed must at least come out as it went in.
TEST(ParcelTest, TakesBundlesLiterallyOrNotAtAll) {
    for (std::size_t at = 0; at < EXAMPLE.size(); ++at) {
        EXPECT_EQ(decoded(EXAMPLE.substr(0, at)), nullptr) << at;
        Bytes damaged = EXAMPLE;
        for (int change = 1; change <= 256; ++change) {
            damaged[at]++;
            const Bundle b = decoded(damaged);
            EXPECT_TRUE(b == nullptr ? change < 256 : encoded(b) == damaged) << at << change;
        }
    }
    const Bytes good = "\1" + text("k") + text("v");
    EXPECT_EQ(decoded(number(1) + good + '\0'), nullptr) << "a byte too many";
    EXPECT_EQ(decoded(number(2) + good + good), nullptr) << "a key twice";
    EXPECT_EQ(decoded(number(1) + "\1" + text("") + text("v")), nullptr) << "no key";
    EXPECT_EQ(decoded(number(1) + "\3" + text("k") + number(0)), nullptr) << "no bytes";
}

TEST(ParcelTest, IsUnchangedLikeTheBundleWhenAnAllocationFails) {
    Bytes sixteen = number(16); // the next entry starts the index
    for (char key = 'a'; key <= 'p'; ++key)
        sixteen += "\1" + text({key}) + text("v");
    static const char *texts[] = {"one", "two"};
    int (*const operations[])(bundle *, rpc_port_parcel_h) = {
        [](auto b, auto) { return bundle_add_str(b, "new", "v"); },
        [](auto b, auto) { return bundle_add_str_array(b, "new", texts, 2); },
        [](auto b, auto parcel) { return rpc_port_parcel_write_bundle(parcel, b); },
        [](auto, auto parcel) {
            bundle *b = nullptr;
            const int result = rpc_port_parcel_read_bundle(parcel, &b);
            return bundle_free(b), result;
        },
    };
    for (const auto operation : operations) {
        int result = RPC_PORT_ERROR_OUT_OF_MEMORY;
        for (int nth = 1; result != 0; ++nth) {
            const Bundle b = decoded(sixteen);
            host::Parcel parcel = parcelOf(sized(EXAMPLE));
            failAllocation(nth);
            result = operation(b.get(), &parcel);
            const bool hasFailed = stopFailingAllocations() > 0;
            ASSERT_EQ(result, hasFailed || nth == 1 ? RPC_PORT_ERROR_OUT_OF_MEMORY : 0);
            EXPECT_TRUE(result == 0 || encoded(b) == sixteen);
            EXPECT_TRUE(result == 0 || bytesOf(parcel) == sized(EXAMPLE));
        }
    }
}

} // namespace
