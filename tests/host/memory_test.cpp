// SPDX-License-Identifier: Apache-2.0
#include "memory.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "allocation_faults.h"

namespace {

using host::Memory;
using nelvo::testkit::liveBlocks;

// So many blocks as remain, once count of them have been had and given back, all at a time.
long keptOf(std::size_t size, int count) {
    std::vector<Memory> had;
    had.reserve(static_cast<std::size_t>(count));
    const long before = liveBlocks();
    for (int i = 0; i < count; i++)
        had.emplace_back(size);
    had.clear();
    return liveBlocks() - before;
}

TEST(MemoryTest, KeepsAFewBlocksOfAThreadUntilItsEnd) {
    const struct {
        const char *what;
        std::size_t size;
        long kept;
    } rows[] = {
        {"small", 1, 8},       {"the largest small ones", 1008, 8},     {"between", 2000, 0},
        {"large", 100'000, 4}, {"too large to keep", (2 << 20) + 1, 0},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        const long before = liveBlocks();
        std::thread([&] {
            EXPECT_EQ(row.kept, keptOf(row.size, 20));
            EXPECT_EQ(0, keptOf(row.size, 4)) << "the same ones serve again";
        }).join();
        EXPECT_EQ(before, liveBlocks());
    }
}

TEST(MemoryTest, ServesALargeSizeWithABlockOfAboutThatSize) {
    keptOf(100'000, 1);
    const struct {
        std::size_t size;
        bool isServed;
    } rows[] = {{100'001, false}, {49'999, false}, {50'000, true}, {100'000, true}};
    for (const auto &row : rows) {
        const long before = liveBlocks();
        const Memory memory(row.size);
        EXPECT_EQ(row.isServed ? before : before + 1, liveBlocks()) << row.size;
        EXPECT_GE(memory.size(), row.size);
    }
}

TEST(MemoryTest, KeepsNothingWhenToldSo) {
    Memory::keepNone();
    EXPECT_EQ(0, keptOf(1, 20));
    EXPECT_EQ(0, keptOf(100'000, 20));
}

} // namespace
