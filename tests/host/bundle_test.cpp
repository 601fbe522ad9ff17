// SPDX-License-Identifier: Apache-2.0
#include <bundle.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "allocation_faults.h"

namespace {

template <typename... Result>
std::vector<int> results(Result... result) {
    return {result...};
}

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

TEST(BundleTest, GivesBackWhatItWasGivenWhateverItRefused) {
    bundle *b = bundle_create();
    const char *texts[] = {"one", "", "three"}, *gap[] = {"one", nullptr};
    const std::string mebibyte((1 << 20) - 1, 'x');
    std::vector<const char *> twoGibibytes(2048, mebibyte.c_str());
    char *str = nullptr;
    void *byte = nullptr;
    size_t size = 0;
    int len = -7;
    for (const std::size_t length : {400u, 100000u}) { // leaves no zeros behind in memory
        const std::string longText(length, 'x');
        EXPECT_EQ(bundle_add_str(b, "str", longText.c_str()), 0);
        EXPECT_EQ("str 2/" + longText + '\0' + " ", contents(b));
        EXPECT_EQ(bundle_del(b, "str"), 0);
    }
    bundle_free(std::exchange(b, bundle_create()));
    EXPECT_EQ(bundle_add_str(b, "str", "text"), 0);
    EXPECT_EQ(bundle_add_byte(b, "byte", "\0\1", 2), 0);
    EXPECT_EQ(bundle_add_str_array(b, "array", texts, 3), 0);
    EXPECT_THAT(
        results(bundle_add_str(nullptr, "k", "v"), bundle_add_str(b, nullptr, "v"),
                bundle_add_str(b, "", "v"), bundle_add_str(b, "k", nullptr),
                bundle_add_byte(b, "k", nullptr, 1), bundle_add_byte(b, "k", "v", 0),
                bundle_add_byte(b, "k", "v", SIZE_MAX), bundle_add_str_array(b, "k", gap, 2),
                bundle_add_str_array(b, "k", nullptr, 1), bundle_add_str_array(b, "k", texts, -1),
                bundle_add_str_array(b, "k", twoGibibytes.data(), 2048),
                bundle_get_str(nullptr, "str", &str), bundle_get_str(b, nullptr, &str),
                bundle_get_str(b, "str", nullptr), bundle_get_str(b, "byte", &str),
                bundle_get_byte(b, "str", &byte, &size), bundle_get_byte(b, "byte", nullptr, &size),
                bundle_get_byte(b, "byte", &byte, nullptr), bundle_del(nullptr, "str"),
                bundle_del(b, nullptr), bundle_free(nullptr),
                bundle_keyval_get_basic_val(nullptr, &byte, &size)),
        testing::Each(BUNDLE_ERROR_INVALID_PARAMETER));
    EXPECT_EQ(bundle_get_str(b, "st", &str), BUNDLE_ERROR_KEY_NOT_AVAILABLE);
    EXPECT_EQ(bundle_get_byte(b, "k", &byte, &size), BUNDLE_ERROR_KEY_NOT_AVAILABLE);
    EXPECT_EQ(nullptr, bundle_get_str_array(b, "byte", &len));
    EXPECT_EQ(len, -7);

    EXPECT_EQ(std::string("str 2/text\0 byte 4/\0\1 array 3/ ", 31), contents(b));
    EXPECT_EQ(bundle_get_str(b, "str", &str), 0);
    EXPECT_STREQ("text", str);
    EXPECT_EQ(bundle_get_byte(b, "byte", &byte, &size), 0);
    EXPECT_EQ(std::string("\0\1", 2), std::string(static_cast<char *>(byte), size));
    EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(byte) % alignof(std::max_align_t));
    const char **array = bundle_get_str_array(b, "array", &len);
    ASSERT_EQ(3, len);
    EXPECT_EQ((std::vector<std::string>{"one", "", "three"}),
              std::vector<std::string>(array, array + 3));
    EXPECT_EQ(nullptr, array[3]);
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

TEST(BundleTest, ChangesNeitherACopyNorTheEntryThatForeachShows) {
    std::pair<bundle *, std::string> run{bundle_create(), ""};
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(bundle_add_str(run.first, ("key" + std::to_string(i)).c_str(), "value"), 0);
    bundle *const copy = bundle_dup(run.first);
    auto replace = [](const char *key, const int, const bundle_keyval_t *kv, void *data) {
        auto &[b, values] = *static_cast<decltype(run) *>(data);
        EXPECT_EQ(bundle_del(b, key), 0);
        void *value = nullptr;
        size_t size = 0;
        bundle_keyval_get_basic_val(const_cast<bundle_keyval_t *>(kv), &value, &size);
        values += static_cast<char *>(value);
    };
    bundle_foreach(run.first, replace, &run);
    EXPECT_EQ(run.second.substr(0, 10), "valuevalue");
    EXPECT_EQ(bundle_get_count(copy), 100);
    EXPECT_EQ(bundle_get_type(copy, "key0"), BUNDLE_TYPE_STR);
    EXPECT_EQ(bundle_get_type(run.first, "key0"), BUNDLE_TYPE_NONE);
    bundle_free(copy);
    bundle_free(run.first);
}

} // namespace
