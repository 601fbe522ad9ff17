// SPDX-License-Identifier: Apache-2.0
#include "memory.h"

namespace host {

namespace {

constexpr std::size_t SMALLEST_KEPT = std::size_t{16} << 10;
constexpr std::size_t LARGEST_KEPT = std::size_t{2} << 20;
constexpr std::size_t KEPT_BLOCKS = 4;

} // namespace

// A large block goes back to the system with its pages, and to get them again takes longer than to
// fill them. So each thread keeps the few that it has let go of last.
struct Memory::Kept {
    ~Kept() {
        for (Block *const block : blocks)
            ::operator delete(block);
        isGone = true;
    }

    // Null: there is none that fits.
    Block *take(std::size_t size) {
        for (Block *&block : blocks) {
            if (block != nullptr && block->size >= size && block->size / 2 <= size)
                return std::exchange(block, nullptr);
        }
        return nullptr;
    }
    // In the place of the one that is there longest.
    void put(Block *block) {
        ::operator delete(std::exchange(blocks[next++ % KEPT_BLOCKS], block));
    }

    Block *blocks[KEPT_BLOCKS] = {};
    std::size_t next = 0;
    bool isGone = false; // the thread is ending
};

static thread_local Memory::Kept kept;

Memory::Memory(std::size_t size) {
    const bool isLarge = size >= SMALLEST_KEPT && size <= LARGEST_KEPT;
    _block = isLarge && !kept.isGone ? kept.take(size) : nullptr;
    if (_block != nullptr) {
        _block->owners.store(1, std::memory_order_relaxed);
        return;
    }
    if (size > PTRDIFF_MAX)
        throw std::bad_alloc();
    _block = new (::operator new(sizeof(Block) + size)) Block{{1}, size};
}

void Memory::free(Block *block) {
    if (block->size >= SMALLEST_KEPT && block->size <= LARGEST_KEPT && !kept.isGone)
        kept.put(block);
    else
        ::operator delete(block);
}

} // namespace host
