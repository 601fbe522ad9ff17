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

// A reference-counted block of bytes, aligned for any type and not zeroed. Its owners may be on
// different threads. An owner must not change bytes that another owner may read.
class Memory {
public:
    Memory() = default;
    explicit Memory(std::size_t size); // throws std::bad_alloc
    Memory(const Memory &other) : _block(other._block) {
        if (_block)
            _block->owners.fetch_add(1, std::memory_order_relaxed);
    }
    Memory(Memory &&other) noexcept : _block(std::exchange(other._block, nullptr)) {}
    Memory &operator=(Memory other) noexcept {
        std::swap(_block, other._block);
        return *this;
    }
    ~Memory() {
        if (_block && _block->owners.fetch_sub(1, std::memory_order_acq_rel) == 1)
            ::operator delete(_block);
    }

    explicit operator bool() const { return _block; }
    // Must not be called for an empty Memory.
    char *bytes() const { return reinterpret_cast<char *>(_block + 1); }

private:
    struct alignas(std::max_align_t) Block {
        std::atomic<std::uint32_t> owners;
    };

    Block *_block = nullptr;
};

// A growing array of bytes, not zeroed. Other owners of its memory may read the bytes.
class Bytes {
public:
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
    std::uint8_t *end() const { return _data + _size; }
    std::size_t size() const { return _size; }
    std::size_t capacity() const { return _capacity; }

    // The following functions throw std::bad_alloc and then have changed nothing.
    void reserve(std::size_t capacity);
    // Appends bytes, and returns where they are to be written.
    std::uint8_t *extend(std::size_t size) {
        if (size > _capacity - _size)
            reserve(std::max(_size + size, 2 * _capacity));
        _size += size;
        return _data + (_size - size);
    }
    void append(const void *bytes, std::size_t size) {
        if (size > 0)
            std::memcpy(extend(size), bytes, size);
    }
    // Appends bytes that have been written behind the end, within the capacity.
    void setSize(std::size_t size) { _size = size; }
    // Removes bytes at the front.
    void dropFront(std::size_t size) {
        _data += size;
        _size -= size;
        _capacity -= size;
    }

private:
    Memory _memory;
    std::uint8_t *_data = nullptr;
    std::size_t _size = 0;
    std::size_t _capacity = 0;
};

} // namespace host
