// SPDX-License-Identifier: Apache-2.0
#include <rpc-port-parcel.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "failing_allocations.h"

namespace {

using Bytes = std::string;

class Parcel {
public:
    Parcel() { EXPECT_EQ(0, rpc_port_parcel_create(&_handle)); }
    // Values have no tags, so numbers can put any bytes into a parcel; up to three zeros follow.
    explicit Parcel(Bytes bytes) : Parcel() {
        bytes.resize((bytes.size() + 3) / 4 * 4);
        for (std::size_t i = 0; i < bytes.size(); i += 4) {
            int word = 0;
            std::memcpy(&word, &bytes[i], 4);
            EXPECT_EQ(0, rpc_port_parcel_write_int32(_handle, word));
        }
    }
    Parcel(const Parcel &) = delete;
    Parcel &operator=(const Parcel &) = delete;
    ~Parcel() { rpc_port_parcel_destroy(_handle); }

    operator rpc_port_parcel_h() const { return _handle; }

    // All bytes that have not been read, padded with zeros to whole numbers.
    Bytes rest() {
        for (int i = 0; i < 3; i++)
            EXPECT_EQ(0, rpc_port_parcel_write_bool(_handle, false));
        Bytes bytes;
        int word = 0;
        while (rpc_port_parcel_read_int32(_handle, &word) == 0)
            bytes.append(reinterpret_cast<char *>(&word), 4);
        return bytes;
    }

private:
    rpc_port_parcel_h _handle = nullptr;
};

struct Free {
    void operator()(bundle *b) const { bundle_free(b); }
};
using Bundle = std::unique_ptr<bundle, Free>;

Bytes number(std::uint32_t value) {
    return Bytes(reinterpret_cast<char *>(&value), sizeof value);
}

Bytes sized(const Bytes &bytes) {
    return number(static_cast<std::uint32_t>(bytes.size())) + bytes;
}

Bytes text(const char *value) {
    return sized(Bytes(value, std::strlen(value) + 1));
}

Bytes operator""_b(const char *bytes, std::size_t size) {
    return Bytes(bytes, size);
}

Bundle exampleBundle() {
    const char *texts[] = {"one", "", "three"};
    Bundle b(bundle_create());
    EXPECT_EQ(0, bundle_add_str(b.get(), "str", "text"));
    EXPECT_EQ(0, bundle_add_str_array(b.get(), "array", texts, 3));
    EXPECT_EQ(0, bundle_add_byte(b.get(), "byte", "\0\1\2", 3));
    EXPECT_EQ(0, bundle_add_str_array(b.get(), "none", nullptr, 0));
    return b;
}

const Bytes EXAMPLE = number(4) + "\1"_b + text("str") + text("text") + "\2"_b + text("array") +
                      number(3) + text("one") + text("") + text("three") + "\3"_b + text("byte") +
                      sized("\0\1\2"_b) + "\2"_b + text("none") + number(0);

Bundle readBundle(const Bytes &encoded, int expected) {
    Parcel parcel(sized(encoded));
    bundle *b = nullptr;
    EXPECT_EQ(expected, rpc_port_parcel_read_bundle(parcel, &b));
    EXPECT_EQ(expected == 0, b != nullptr);
    return Bundle(b);
}

Bytes encoded(bundle *b) {
    Parcel parcel;
    EXPECT_EQ(0, rpc_port_parcel_write_bundle(parcel, b));
    int size = 0;
    EXPECT_EQ(0, rpc_port_parcel_read_int32(parcel, &size));
    return parcel.rest().substr(0, static_cast<std::size_t>(size));
}

TEST(ParcelTest, GivesBackValuesInTheOrderOfWriting) {
    Parcel parcel;
    const std::string longText(100000, 'x');
    const Bundle written = exampleBundle();
    EXPECT_EQ(0, rpc_port_parcel_write_int32(parcel, INT_MIN));
    EXPECT_EQ(0, rpc_port_parcel_write_bool(parcel, true));
    EXPECT_EQ(0, rpc_port_parcel_write_string(parcel, longText.c_str()));
    EXPECT_EQ(0, rpc_port_parcel_write_bundle(parcel, written.get()));
    EXPECT_EQ(0, rpc_port_parcel_write_bool(parcel, false));

    int number = 0;
    bool first = false, last = true;
    char *str = nullptr;
    bundle *b = nullptr;
    EXPECT_EQ(0, rpc_port_parcel_read_int32(parcel, &number));
    EXPECT_EQ(0, rpc_port_parcel_read_bool(parcel, &first));
    ASSERT_EQ(0, rpc_port_parcel_read_string(parcel, &str));
    ASSERT_EQ(0, rpc_port_parcel_read_bundle(parcel, &b));
    EXPECT_EQ(0, rpc_port_parcel_read_bool(parcel, &last));
    EXPECT_EQ(INT_MIN, number);
    EXPECT_TRUE(first);
    EXPECT_EQ(longText, str);
    EXPECT_FALSE(last);
    std::free(str);

    const Bundle read(b);
    EXPECT_EQ(EXAMPLE, encoded(b));
    void *byte = nullptr;
    size_t size = 0;
    ASSERT_EQ(0, bundle_get_byte(b, "byte", &byte, &size));
    EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(byte) % alignof(std::max_align_t));
    EXPECT_EQ(0, bundle_del(b, "str"));
    EXPECT_EQ(0, bundle_add_str(b, "str", "other")); // a bundle like any other
}

TEST(ParcelTest, RefusesNullArguments) {
    Parcel parcel;
    int i = 0;
    bool flag = false;
    char *str = nullptr;
    bundle *b = nullptr;
    const struct {
        const char *call;
        int result;
    } rows[] = {
        {"create", rpc_port_parcel_create(nullptr)},
        {"destroy", rpc_port_parcel_destroy(nullptr)},
        {"write int32", rpc_port_parcel_write_int32(nullptr, 1)},
        {"write bool", rpc_port_parcel_write_bool(nullptr, true)},
        {"write string", rpc_port_parcel_write_string(nullptr, "")},
        {"write no string", rpc_port_parcel_write_string(parcel, nullptr)},
        {"write no bundle", rpc_port_parcel_write_bundle(parcel, nullptr)},
        {"read int32", rpc_port_parcel_read_int32(nullptr, &i)},
        {"read to no int32", rpc_port_parcel_read_int32(parcel, nullptr)},
        {"read bool", rpc_port_parcel_read_bool(nullptr, &flag)},
        {"read to no bool", rpc_port_parcel_read_bool(parcel, nullptr)},
        {"read string", rpc_port_parcel_read_string(nullptr, &str)},
        {"read to no string", rpc_port_parcel_read_string(parcel, nullptr)},
        {"read bundle", rpc_port_parcel_read_bundle(nullptr, &b)},
        {"read to no bundle", rpc_port_parcel_read_bundle(parcel, nullptr)},
    };
    for (const auto &row : rows)
        EXPECT_EQ(RPC_PORT_ERROR_INVALID_PARAMETER, row.result) << row.call;
    EXPECT_EQ("", parcel.rest());
}

int readInt32(rpc_port_parcel_h h) {
    int value = 77;
    const int result = rpc_port_parcel_read_int32(h, &value);
    EXPECT_EQ(77, value);
    return result;
}

int readBool(rpc_port_parcel_h h) {
    bool value = true;
    const int result = rpc_port_parcel_read_bool(h, &value);
    EXPECT_TRUE(value);
    return result;
}

int readString(rpc_port_parcel_h h) {
    char untouched = 0;
    char *value = &untouched;
    const int result = rpc_port_parcel_read_string(h, &value);
    EXPECT_EQ(&untouched, value);
    return result;
}

TEST(ParcelTest, ReadsNothingFromWhatIsNotAWholeValue) {
    const struct {
        const char *what;
        Bytes bytes; // of whole words
        int (*read)(rpc_port_parcel_h h);
    } rows[] = {
        {"no number", "", readInt32},
        {"no bool", "", readBool},
        {"bool 2", "\2\0\0\0"_b, readBool},
        {"bool 255", "\xff\0\0\0"_b, readBool},
        {"no string", "", readString},
        {"string without bytes", number(1), readString},
        {"string of size 0", number(0), readString},
        {"string cut", number(5) + "abc\0"_b, readString},
        {"string of 4 GiB", number(UINT32_MAX) + "abc\0"_b, readString},
        {"string without zero", number(4) + "abcd", readString},
        {"string with two zeros", number(4) + "a\0b\0"_b, readString},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Parcel parcel(row.bytes);
        EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, row.read(parcel));
        EXPECT_EQ(row.bytes, parcel.rest().substr(0, row.bytes.size())); // nothing consumed
    }
}

TEST(ParcelBundleTest, RefusesWhateverIsNotAWellFormedBundle) {
    const Bytes good = "\1"_b + text("k") + text("v");
    const struct {
        const char *what;
        Bytes encoded;
    } rows[] = {
        {"byte too many", number(1) + good + "\0"_b},
        {"most entries", number(UINT32_MAX) + good},
        {"key twice", number(2) + good + good},
        {"type 0", number(1) + "\0"_b + text("k") + text("v")},
        {"type 4", number(1) + "\4"_b + text("k") + text("v")},
        {"key empty", number(1) + "\1"_b + text("") + text("v")},
        {"key of size 0", number(1) + "\1"_b + number(0) + text("v") + text("v")},
        {"key without zero", number(1) + "\1"_b + sized("k") + text("v")},
        {"key with two zeros", number(1) + "\1"_b + sized("k\0\0"_b) + text("v")},
        {"key of 4 GiB", number(1) + "\1"_b + number(UINT32_MAX) + "k\0"_b + text("v")},
        {"text of size 0", number(1) + "\1"_b + text("k") + number(0)},
        {"text without zero", number(1) + "\1"_b + text("k") + sized("v")},
        {"no bytes", number(1) + "\3"_b + text("k") + number(0)},
        {"most texts", number(1) + "\2"_b + text("k") + number(UINT32_MAX) + text("v")},
        {"texts missing", number(1) + "\2"_b + text("k") + number(2) + text("value")},
        {"text in array bad", number(1) + "\2"_b + text("k") + number(1) + sized("v")},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        readBundle(row.encoded, RPC_PORT_ERROR_IO_ERROR);
    }
    EXPECT_EQ(1, bundle_get_count(readBundle(number(1) + good, 0).get()));
    EXPECT_EQ(0, bundle_get_count(readBundle(number(0), 0).get()));
}

TEST(ParcelBundleTest, RefusesEveryPrefix) {
    for (std::size_t size = 0; size < EXAMPLE.size(); size++) {
        SCOPED_TRACE(size);
        readBundle(EXAMPLE.substr(0, size), RPC_PORT_ERROR_IO_ERROR);
    }
}

// A bundle has one encoding: damage that goes unnoticed must at least come out as it went in.
TEST(ParcelBundleTest, TakesDamagedBytesLiterallyOrNotAtAll) {
    int taken = 0;
    for (std::size_t at = 0; at < EXAMPLE.size(); at++) {
        for (const int change : {1, 2, 3, 0x7F, 0x80, 0xFF}) {
            Bytes damaged = EXAMPLE;
            damaged[at] = static_cast<char>(damaged[at] ^ change);
            Parcel parcel(sized(damaged));
            bundle *b = nullptr;
            const int result = rpc_port_parcel_read_bundle(parcel, &b);
            const Bundle owner(b);
            EXPECT_TRUE(result == 0 || result == RPC_PORT_ERROR_IO_ERROR) << result;
            if (result == 0) {
                EXPECT_EQ(damaged, encoded(b)) << at << " ^ " << change;
                taken++;
            }
        }
    }
    EXPECT_LT(50, taken);
}

TEST(ParcelMemoryTest, AFailedAllocationIsReportedAndChangesNothing) {
    struct Operation {
        const char *what;
        int (*run)(rpc_port_parcel_h h);
    };
    const Operation operations[] = {
        {"create",
         [](rpc_port_parcel_h) {
             rpc_port_parcel_h h = nullptr;
             const int result = rpc_port_parcel_create(&h);
             EXPECT_EQ(result == 0, h != nullptr);
             rpc_port_parcel_destroy(h);
             return result;
         }},
        {"write string",
         [](rpc_port_parcel_h h) {
             char longText[1000] = {};
             std::memset(longText, 'x', sizeof longText - 1);
             return rpc_port_parcel_write_string(h, longText);
         }},
        {"read bundle",
         [](rpc_port_parcel_h h) {
             bundle *b = nullptr;
             const int result = rpc_port_parcel_read_bundle(h, &b);
             EXPECT_EQ(result == 0, b != nullptr);
             bundle_free(b);
             return result;
         }},
    };
    for (const Operation &operation : operations) {
        SCOPED_TRACE(operation.what);
        const Bytes before = sized(EXAMPLE);
        auto prepare = [&] { return std::make_unique<Parcel>(before); };
        auto operate = [&](const auto &parcel) { return operation.run(*parcel); };
        auto check = [&](const auto &parcel, int result, bool hasFailed) {
            EXPECT_EQ(hasFailed ? RPC_PORT_ERROR_OUT_OF_MEMORY : 0, result);
            if (hasFailed) {
                EXPECT_EQ(before, parcel->rest().substr(0, before.size()));
            }
        };
        EXPECT_LE(1, allocations::failEach(prepare, operate, check));
    }
}

} // namespace
