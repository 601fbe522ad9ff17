// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

namespace host {

// Bytes that any number of owners share, on any threads; aligned for any type, and not zeroed.
// Nobody changes what another owner may look at.
class Memory {
public:
    Memory() = default;
    explicit Memory(std::size_t size); // throws std::bad_alloc
    Memory(const Memory &other) : _block(other._block) {
        if (_block != nullptr)
            _block->owners.fetch_add(1, std::memory_order_relaxed);
    }
    Memory(Memory &&other) noexcept : _block(std::exchange(other._block, nullptr)) {}
    Memory &operator=(Memory other) noexcept {
        std::swap(_block, other._block);
        return *this;
    }
    ~Memory() {
        if (_block != nullptr && _block->owners.fetch_sub(1, std::memory_order_acq_rel) == 1)
            free(_block);
    }

    explicit operator bool() const { return _block != nullptr; }
    bool operator==(const Memory &other) const { return _block == other._block; }
    // Only of memory that there is.
    char *bytes() const { return reinterpret_cast<char *>(_block + 1); }
    std::size_t size() const { return _block->size; } // perhaps more than was asked for

    // From now on each one is allocated anew and freed at once, for tests that watch allocations or
    // make them fail.
    static void keepNone();

    struct Kept;

private:
    struct alignas(std::max_align_t) Block {
        std::atomic<std::uint32_t> owners;
        std::size_t size; // of what follows
    };

    static void free(Block *block);
    static void giveBack(Block *block);

    Block *_block = nullptr;
};

// Bytes in a row that grow at their end. Others may share the memory and look at what is there.
class Bytes {
public:
    // The memory begins with so much that is not used here: for an object that deals with the
    // bytes and, right before them, for what is to be sent ahead of them.
    static constexpr std::size_t FRONT = sizeof(std::uint32_t);
    static constexpr std::size_t HEAD = 64 + 2 * sizeof(void *);

    Bytes() = default;
    Bytes(Bytes &&other) noexcept
        : _memory(std::move(other._memory)), _data(std::exchange(other._data, nullptr)),
          _size(std::exchange(other._size, 0)), _capacity(std::exchange(other._capacity, 0)) {}
    Bytes &operator=(Bytes other) noexcept {
        std::swap(_memory, other._memory);
        std::swap(_data, other._data);
        std::swap(_size, other._size);
        std::swap(_capacity, other._capacity);
        return *this;
    }

    const Memory &memory() const { return _memory; }
    std::uint8_t *data() const { return _data; }
    std::uint8_t *front() const { return _data - FRONT; } // only where there is memory
    std::uint8_t *end() const { return _data + _size; }
    std::size_t size() const { return _size; }
    std::size_t capacity() const { return _capacity; }

    // These throw std::bad_alloc; nothing has changed then.
    void reserve(std::size_t capacity);
    // Gives the place of the new bytes, which are to be filled in.
    std::uint8_t *extend(std::size_t size) {
        if (size > _capacity - _size)
            reserve(std::max(_size + size, 2 * _capacity));
        _size += size;
        return _data + (_size - size);
    }
    // Of what has been filled in; not more than the capacity.
    void setSize(std::size_t size) { _size = size; }
    void append(const void *bytes, std::size_t size) {
        if (size > 0)
            std::memcpy(extend(size), bytes, size);
    }
    // Without it only the destructor may follow.
    Memory release() { return std::move(_memory); }
    // Leaves what is free behind the bytes to somebody else: they will not grow there any more.
    void close() { _capacity = _size; }

private:
    Memory _memory;
    std::uint8_t *_data = nullptr;
    std::size_t _size = 0;
    std::size_t _capacity = 0;
};

} // namespace host
