// SPDX-License-Identifier: Apache-2.0
#include <bundle.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

// "key type/value " for each entry, as foreach shows it; an array's value is left out.
std::string contents(bundle *b) {
    std::string all;
    auto describe = [](const char *key, const int type, const bundle_keyval_t *kv, void *to) {
        auto entry = const_cast<bundle_keyval_t *>(kv);
        void *value = nullptr;
        size_t size = 0;
        const bool isArray = bundle_keyval_get_basic_val(entry, &value, &size) != 0;
        EXPECT_TRUE(bundle_keyval_get_type(entry) == type &&
                    bundle_keyval_type_is_array(entry) == isArray);
        *static_cast<std::string *>(to) += key + (" " + std::to_string(type) + "/") +
                                           std::string(static_cast<char *>(value), size) + " ";
    };
    bundle_foreach(b, describe, &all);
    return all;
}

TEST(BundleTest, IsUnchangedByWhatItRefuses) {
    bundle *const b = bundle_create();
    const char *texts[] = {"one", "", "three"}, *gap[] = {"one", nullptr};
    const std::string mebibyte((1 << 20) - 1, 'x');
    std::vector<const char *> twoGibibytes(2048, mebibyte.c_str());
    char *str = nullptr;
    void *byte = nullptr;
    size_t size = 0;
    int len = -7;
    EXPECT_EQ(bundle_add_str(b, "str", "text"), 0);
    EXPECT_EQ(bundle_add_byte(b, "byte", "\0\1", 2), 0);
    EXPECT_EQ(bundle_add_str_array(b, "array", texts, 3), 0);
    const int refused[] = {
        bundle_add_str(nullptr, "k", "v"),
        bundle_add_str(b, "", "v"),
        bundle_add_str(b, "k", nullptr),
        bundle_add_byte(b, "k", nullptr, 1),
        bundle_add_byte(b, "k", "v", 0),
        bundle_add_byte(b, "k", "v", SIZE_MAX),
        bundle_add_str_array(b, "k", gap, 2),
        bundle_add_str_array(b, "k", nullptr, 1),
        bundle_add_str_array(b, "k", texts, -1),
        bundle_add_str_array(b, "k", twoGibibytes.data(), 2048),
        bundle_get_str(b, nullptr, &str),
        bundle_get_str(b, "str", nullptr),
        bundle_get_byte(b, "byte", &byte, nullptr),
        bundle_del(b, nullptr),
        bundle_keyval_get_basic_val(nullptr, &byte, &size),
    };
    EXPECT_THAT(refused, testing::Each(BUNDLE_ERROR_INVALID_PARAMETER));
    EXPECT_EQ(bundle_get_str_array(b, "byte", &len), nullptr);
    EXPECT_EQ(len, -7);
    EXPECT_EQ(contents(b), std::string("str 2/text\0 byte 4/\0\1 array 3/ ", 31));
    const char **array = bundle_get_str_array(b, "array", &len);
    ASSERT_EQ(len, 3);
    EXPECT_EQ(std::vector<std::string>(array, array + 3),
              (std::vector<std::string>{"one", "", "three"}));
    EXPECT_EQ(array[3], nullptr);
    EXPECT_EQ(bundle_get_byte(b, "byte", &byte, &size), 0);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(byte) % alignof(std::max_align_t), 0u);
    EXPECT_EQ(bundle_get_type(b, "absent"), BUNDLE_TYPE_NONE);
    bundle_free(b);
}

// With few keys, and with enough for the index.
TEST(BundleTest, AgreesWithAListAfterAnyChanges) {
    for (const unsigned keys : {3u, 16u, 40u, 200u}) {
        bundle *const b = bundle_create();
        std::vector<std::string> list;
        unsigned random = 1;
        for (unsigned step = 0; step < keys * 30; ++step) {
            random = random * 1664525 + 1013904223;
            const std::string key = std::to_string((random >> 8) % keys);
            const auto found = std::find(list.begin(), list.end(), key);
            const bool isThere = found != list.end();
            if (step / keys % 2 == 0) { // alternately: most keys come, most keys go
                ASSERT_EQ(isThere ? BUNDLE_ERROR_KEY_EXISTS : 0,
                          bundle_add_str(b, key.c_str(), ""));
                list.insert(list.end(), isThere ? 0 : 1, key);
            } else {
                ASSERT_EQ(isThere ? 0 : BUNDLE_ERROR_KEY_NOT_AVAILABLE, bundle_del(b, key.c_str()));
                list.erase(found, found + (isThere ? 1 : 0));
            }
            std::string expected;
            for (const std::string &each : list)
                expected += each + " 2/" + '\0' + " ";
            ASSERT_EQ(expected, contents(b));
        }
        bundle_free(b);
    }
}

} // namespace
