// SPDX-License-Identifier: Apache-2.0
#include "memory.h"

#include <pthread.h>

namespace host {

namespace {

// Most of what a request needs is small and of one size, so that one block serves as well as
// another.
constexpr std::size_t USUAL_SIZE = std::size_t{1} << 10;
constexpr std::size_t SMALLEST_LARGE = std::size_t{16} << 10;
constexpr std::size_t LARGEST_KEPT = std::size_t{2} << 20;

// Left free before and behind a large block. A neighbour may have the same contents, as a text has
// that is copied; if both begin at about the same place of a page, some processors copy at a
// twentieth of their speed.
constexpr std::size_t MARGIN = 256;

// Changes only before there are other threads.
#ifdef HOST_KEEPS_NO_MEMORY
bool keepsMemory = false;
#else
bool keepsMemory = true;
#endif

constexpr std::size_t marginOf(std::size_t size) {
    return size >= SMALLEST_LARGE ? MARGIN : 0;
}

} // namespace

// Each thread keeps a few blocks that it has let go of: one of the usual size costs less than an
// allocation, and a large one goes back to the system with its pages, which to get again takes
// longer than to fill them.
struct Memory::Kept {
    static constexpr std::size_t USUAL_BLOCKS = 8;
    static constexpr std::size_t LARGE_BLOCKS = 4;

    // These two give null where there is none.
    Block *takeUsual() { return usualCount > 0 ? usual[--usualCount] : nullptr; }
    Block *takeLarge(std::size_t size) {
        for (Block *&block : large) {
            if (block != nullptr && block->size >= size && block->size / 2 <= size)
                return std::exchange(block, nullptr);
        }
        return nullptr;
    }

    // What is not kept comes back.
    Block *putUsual(Block *block) {
        if (usualCount == USUAL_BLOCKS)
            return block;
        usual[usualCount++] = block;
        return nullptr;
    }
    // In the place of the one that is there longest.
    Block *putLarge(Block *block) {
        return std::exchange(large[nextLarge++ % LARGE_BLOCKS], block);
    }

    void freeAll() {
        while (Block *const block = takeUsual())
            giveBack(block);
        for (Block *&block : large)
            giveBack(std::exchange(block, nullptr));
    }

    Block *usual[USUAL_BLOCKS];
    std::size_t usualCount;
    Block *large[LARGE_BLOCKS];
    std::size_t nextLarge;
    enum { UNUSED, USED, ENDED } state; // of the thread
};

namespace {

// Without a constructor or destructor, so that to use it costs nothing more.
[[gnu::tls_model("initial-exec")]] thread_local Memory::Kept kept;

void endThread(void *) {
    kept.state = Memory::Kept::ENDED;
    kept.freeAll();
}

// False: nobody would see to what this thread keeps. Not a destructor of the thread's, for which
// the C library ends the process when it has no memory to remember it.
bool awaitThreadEnd() {
    static pthread_key_t key;
    static const bool hasKey = pthread_key_create(&key, endThread) == 0;
    return hasKey && pthread_setspecific(key, &kept) == 0;
}

} // namespace

Memory::Memory(std::size_t size) {
    if (size <= USUAL_SIZE - sizeof(Block)) {
        size = USUAL_SIZE - sizeof(Block);
        _block = kept.takeUsual();
    } else if (size >= SMALLEST_LARGE) {
        _block = kept.takeLarge(size);
    }
    if (_block == nullptr) {
        if (size > PTRDIFF_MAX)
            throw std::bad_alloc();
        const std::size_t margin = marginOf(size);
        auto *const start =
            static_cast<char *>(::operator new(margin + sizeof(Block) + size + margin));
        _block = new (start + margin) Block{{1}, size};
    }
    _block->owners.store(1, std::memory_order_relaxed);
}

void Memory::free(Block *block) {
    if (keepsMemory && kept.state == Kept::UNUSED && awaitThreadEnd())
        kept.state = Kept::USED;
    const bool isUsual = block->size == USUAL_SIZE - sizeof(Block);
    const bool isLarge = block->size >= SMALLEST_LARGE && block->size <= LARGEST_KEPT;
    if (keepsMemory && kept.state == Kept::USED && (isUsual || isLarge))
        block = isUsual ? kept.putUsual(block) : kept.putLarge(block);
    giveBack(block);
}

void Memory::giveBack(Block *block) {
    if (block != nullptr)
        ::operator delete(reinterpret_cast<char *>(block) - marginOf(block->size));
}

void Memory::keepNone() {
    keepsMemory = false;
}

void Bytes::reserve(std::size_t capacity) {
    if (capacity <= _capacity && _memory)
        return;
    Memory grown(capacity <= PTRDIFF_MAX ? HEAD + capacity : capacity);
    auto *const data = reinterpret_cast<std::uint8_t *>(grown.bytes()) + HEAD;
    if (_size > 0)
        std::memcpy(data, _data, _size);
    _capacity = grown.size() - HEAD;
    _memory = std::move(grown);
    _data = data;
}

} // namespace host
