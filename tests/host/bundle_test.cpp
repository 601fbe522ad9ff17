// SPDX-License-Identifier: Apache-2.0
#include <bundle.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "failing_allocations.h"

namespace {

struct Free {
    void operator()(bundle *b) const { bundle_free(b); }
};
using Bundle = std::unique_ptr<bundle, Free>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

const char *TEXTS[] = {"one", "", "three"};

std::string numbered(const char *name, int number) {
    return name + std::to_string(number);
}

std::string text(bundle *b, const char *key) {
    char *str = nullptr;
    return bundle_get_str(b, key, &str) == BUNDLE_ERROR_NONE ? str : "(none)";
}

// The text entries, as foreach shows them.
Pairs contents(bundle *b) {
    Pairs pairs;
    auto collect = [](const char *key, const int, const bundle_keyval_t *kv, void *to) {
        void *value = nullptr;
        size_t size = 0;
        bundle_keyval_get_basic_val(const_cast<bundle_keyval_t *>(kv), &value, &size);
        static_cast<Pairs *>(to)->emplace_back(key, std::string(static_cast<char *>(value)));
    };
    bundle_foreach(b, collect, &pairs);
    return pairs;
}

Bundle filled(int count) {
    Bundle b(bundle_create());
    for (int i = 0; i < count; i++)
        EXPECT_EQ(0, bundle_add_str(b.get(), numbered("key", i).c_str(), "value"));
    return b;
}

class BundleTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, bundle_add_str(b, "str", "text"));
        ASSERT_EQ(0, bundle_add_byte(b, "byte", "\0\1", 2));
        ASSERT_EQ(0, bundle_add_str_array(b, "array", TEXTS, 3));
    }

    Bundle owner{bundle_create()};
    bundle *b = owner.get();
};

TEST_F(BundleTest, GivesBackWhatItWasGiven) {
    EXPECT_EQ("text", text(b, "str"));

    void *byte = nullptr;
    size_t size = 0;
    ASSERT_EQ(0, bundle_get_byte(b, "byte", &byte, &size));
    EXPECT_EQ(std::string("\0\1", 2), std::string(static_cast<char *>(byte), size));
    EXPECT_EQ(0u, reinterpret_cast<std::uintptr_t>(byte) % alignof(std::max_align_t));

    int len = 0;
    const char **array = bundle_get_str_array(b, "array", &len);
    ASSERT_EQ(3, len);
    for (int i = 0; i < len; i++)
        EXPECT_STREQ(TEXTS[i], array[i]);
    EXPECT_EQ(nullptr, array[len]);
}

TEST_F(BundleTest, RefusesCallsAndLeavesTheContents) {
    char *str = nullptr;
    void *byte = nullptr;
    size_t size = 0;
    int len = -7;
    const char *gap[] = {"one", nullptr};
    const struct {
        const char *call;
        int result, expected;
    } rows[] = {
        {"add str: bundle", bundle_add_str(nullptr, "k", "v"), BUNDLE_ERROR_INVALID_PARAMETER},
        {"add str: key", bundle_add_str(b, nullptr, "v"), BUNDLE_ERROR_INVALID_PARAMETER},
        {"add str: empty key", bundle_add_str(b, "", "v"), BUNDLE_ERROR_INVALID_PARAMETER},
        {"add str: value", bundle_add_str(b, "k", nullptr), BUNDLE_ERROR_INVALID_PARAMETER},
        {"add str: twice", bundle_add_str(b, "str", "v"), BUNDLE_ERROR_KEY_EXISTS},
        {"add byte: twice", bundle_add_byte(b, "str", "v", 1), BUNDLE_ERROR_KEY_EXISTS},
        {"add byte: value", bundle_add_byte(b, "k", nullptr, 1), BUNDLE_ERROR_INVALID_PARAMETER},
        {"add byte: empty", bundle_add_byte(b, "k", "v", 0), BUNDLE_ERROR_INVALID_PARAMETER},
        {"add byte: huge", bundle_add_byte(b, "k", "v", SIZE_MAX), BUNDLE_ERROR_INVALID_PARAMETER},
        {"add array: null", bundle_add_str_array(b, "k", nullptr, 1),
         BUNDLE_ERROR_INVALID_PARAMETER},
        {"add array: gap", bundle_add_str_array(b, "k", gap, 2), BUNDLE_ERROR_INVALID_PARAMETER},
        {"add array: -1", bundle_add_str_array(b, "k", TEXTS, -1), BUNDLE_ERROR_INVALID_PARAMETER},
        {"get str: bundle", bundle_get_str(nullptr, "str", &str), BUNDLE_ERROR_INVALID_PARAMETER},
        {"get str: key", bundle_get_str(b, nullptr, &str), BUNDLE_ERROR_INVALID_PARAMETER},
        {"get str: out", bundle_get_str(b, "str", nullptr), BUNDLE_ERROR_INVALID_PARAMETER},
        {"get str: type", bundle_get_str(b, "byte", &str), BUNDLE_ERROR_INVALID_PARAMETER},
        {"get str: absent", bundle_get_str(b, "st", &str), BUNDLE_ERROR_KEY_NOT_AVAILABLE},
        {"get byte: type", bundle_get_byte(b, "str", &byte, &size), BUNDLE_ERROR_INVALID_PARAMETER},
        {"get byte: absent", bundle_get_byte(b, "k", &byte, &size), BUNDLE_ERROR_KEY_NOT_AVAILABLE},
        {"get byte: out", bundle_get_byte(b, "byte", &byte, nullptr),
         BUNDLE_ERROR_INVALID_PARAMETER},
        {"get array: type", bundle_get_str_array(b, "str", &len) != nullptr, 0},
        {"get array: absent", bundle_get_str_array(b, "k", &len) != nullptr, 0},
        {"get type: absent", bundle_get_type(b, "k"), BUNDLE_TYPE_NONE},
        {"get type: null", bundle_get_type(nullptr, "k"), BUNDLE_TYPE_NONE},
        {"del: absent", bundle_del(b, "k"), BUNDLE_ERROR_KEY_NOT_AVAILABLE},
        {"del: key", bundle_del(b, nullptr), BUNDLE_ERROR_INVALID_PARAMETER},
        {"count: null", bundle_get_count(nullptr), 0},
        {"free: null", bundle_free(nullptr), BUNDLE_ERROR_INVALID_PARAMETER},
        {"dup: null", bundle_dup(nullptr) != nullptr, 0},
        {"keyval type: null", bundle_keyval_get_type(nullptr), BUNDLE_TYPE_NONE},
        {"keyval array: null", bundle_keyval_type_is_array(nullptr), 0},
        {"keyval value: null", bundle_keyval_get_basic_val(nullptr, &byte, &size),
         BUNDLE_ERROR_INVALID_PARAMETER},
    };
    for (const auto &row : rows)
        EXPECT_EQ(row.expected, row.result) << row.call;
    bundle_foreach(b, nullptr, nullptr);
    EXPECT_EQ(-7, len);
    EXPECT_EQ(3, bundle_get_count(b));
    EXPECT_EQ("text", text(b, "str"));
}

TEST_F(BundleTest, ShowsEntriesInOrderWithTheirTypesAndSizes) {
    std::string seen;
    auto describe = [](const char *key, const int type, const bundle_keyval_t *kv, void *to) {
        auto entry = const_cast<bundle_keyval_t *>(kv);
        void *value = nullptr;
        size_t size = 0;
        const int result = bundle_keyval_get_basic_val(entry, &value, &size);
        EXPECT_EQ(type, bundle_keyval_get_type(entry)) << key;
        *static_cast<std::string *>(to) +=
            std::string(key) + (type == BUNDLE_TYPE_STR ? " str " : " other ") +
            (bundle_keyval_type_is_array(entry) ? "array " : "basic ") + std::to_string(result) +
            " " + std::to_string(size) + "\n";
    };
    bundle_foreach(b, describe, &seen);
    EXPECT_EQ("str str basic 0 5\nbyte other basic 0 2\narray other array -22 0\n", seen);
}

// Against a plain list, with few keys and with enough for the index.
TEST(BundleChangesTest, AgreesWithAListAfterAnyChanges) {
    for (const unsigned keys : {3u, 16u, 40u, 300u}) {
        SCOPED_TRACE(keys);
        Bundle b(bundle_create());
        Pairs list;
        unsigned random = 1;
        for (unsigned step = 0; step < keys * 30; step++) {
            random = random * 1664525 + 1013904223;
            const std::string key =
                numbered("key", static_cast<int>(random >> 8) % static_cast<int>(keys));
            auto found = std::find_if(list.begin(), list.end(),
                                      [&](const auto &pair) { return pair.first == key; });
            const bool isThere = found != list.end();
            const bool isGrowing = step / keys % 2 == 0; // alternately: most keys go
            if (isGrowing) {
                const int result = bundle_add_str(b.get(), key.c_str(),
                                                  numbered("", static_cast<int>(step)).c_str());
                ASSERT_EQ(isThere ? BUNDLE_ERROR_KEY_EXISTS : 0, result);
                if (!isThere)
                    list.emplace_back(key, std::to_string(step));
            } else {
                const int result = bundle_del(b.get(), key.c_str());
                ASSERT_EQ(isThere ? 0 : BUNDLE_ERROR_KEY_NOT_AVAILABLE, result);
                if (isThere)
                    list.erase(found);
            }
            if (step % 7 == 0)
                b.reset(bundle_dup(b.get()));
            ASSERT_EQ(static_cast<int>(list.size()), bundle_get_count(b.get()));
        }
        EXPECT_EQ(list, contents(b.get()));
        for (const auto &[key, value] : list)
            EXPECT_EQ(value, text(b.get(), key.c_str()));
    }
}

TEST(BundleCopyTest, IsIndependentOfTheOriginal) {
    for (const int count : {1, 100}) {
        SCOPED_TRACE(count);
        Bundle original = filled(count);
        char *kept = nullptr;
        ASSERT_EQ(0, bundle_get_str(original.get(), "key0", &kept));
        Bundle copy(bundle_dup(original.get()));
        EXPECT_EQ(0, bundle_del(copy.get(), "key0"));
        EXPECT_EQ(0, bundle_add_str(original.get(), "new", "original's"));
        EXPECT_EQ(0, bundle_add_str(copy.get(), "new", "copy's"));
        EXPECT_EQ(count + 1, bundle_get_count(original.get()));
        EXPECT_EQ(count, bundle_get_count(copy.get()));
        EXPECT_EQ("original's", text(original.get(), "new"));
        copy.reset();
        EXPECT_STREQ("value", kept);
    }
}

TEST(BundleCopyTest, CostsTheSameWhateverTheSize) {
    for (const int count : {0, 10, 10000}) {
        Bundle original = filled(count);
        const long before = allocations::done;
        Bundle copy(bundle_dup(original.get()));
        EXPECT_EQ(1, allocations::done - before) << count;
    }
}

// Each callback runs for every entry of a bundle of three.
TEST(BundleForeachTest, ShowsWhatThereWasAtTheStart) {
    struct Change {
        const char *what;
        void (*apply)(bundle *&b, const char *key);
        int countAfterwards;
    };
    const Change changes[] = {
        {"deletes each", [](bundle *&b, const char *key) { bundle_del(b, key); }, 0},
        {"adds to each",
         [](bundle *&b, const char *key) {
             bundle_add_str(b, (std::string(key) + "'").c_str(), "v");
         },
         6},
        {"frees", [](bundle *&b, const char *) { bundle_free(std::exchange(b, nullptr)); }, 0},
    };
    for (const Change &change : changes) {
        SCOPED_TRACE(change.what);
        struct Run {
            bundle *b;
            const Change &change;
            std::string keys;
        } run{filled(3).release(), change, ""};
        auto visit = [](const char *key, const int, const bundle_keyval_t *, void *data) {
            auto current = static_cast<Run *>(data);
            current->change.apply(current->b, key);
            current->keys += key;
        };
        bundle_foreach(run.b, visit, &run);
        EXPECT_EQ("key0key1key2", run.keys);
        EXPECT_EQ(change.countAfterwards, bundle_get_count(run.b));
        bundle_free(run.b);
    }
}

TEST(BundleMemoryTest, AFailedAllocationIsReportedAndChangesNothing) {
    struct Operation {
        const char *what;
        int (*run)(bundle *b);
    };
    const Operation operations[] = {
        {"add str", [](bundle *b) { return bundle_add_str(b, "new", "v"); }},
        {"add byte", [](bundle *b) { return bundle_add_byte(b, "new", "v", 1); }},
        {"add array", [](bundle *b) { return bundle_add_str_array(b, "new", TEXTS, 3); }},
        {"delete", [](bundle *b) { return bundle_del(b, "key0"); }},
    };
    for (const int count : {1, 16, 17}) { // 16: the next one starts the index
        const Bundle original = filled(count);
        const Pairs before = contents(original.get());
        for (const Operation &operation : operations) {
            SCOPED_TRACE(operation.what);
            auto prepare = [&] { return Bundle(bundle_dup(original.get())); };
            auto operate = [&](const Bundle &b) { return operation.run(b.get()); };
            auto check = [&](const Bundle &b, int result, bool hasFailed) {
                EXPECT_EQ(hasFailed ? BUNDLE_ERROR_OUT_OF_MEMORY : 0, result);
                if (hasFailed) {
                    EXPECT_EQ(before, contents(b.get()));
                }
            };
            // The copy and its contents at least.
            EXPECT_LE(2, allocations::failEach(prepare, operate, check));
        }
    }
}

} // namespace
