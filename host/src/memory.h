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

// A block of bytes with any number of owners, on any threads; aligned for any type, and not zeroed.
// No owner changes what another one may look at.
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
    // Only for a block, not for an empty Memory.
    char *bytes() const { return reinterpret_cast<char *>(_block + 1); }

private:
    struct alignas(std::max_align_t) Block {
        std::atomic<std::uint32_t> owners;
    };

    Block *_block = nullptr;
};

// Bytes in a row that grow at their end. Others may share the memory and look at what is there.
class Bytes {
public:
    // So many bytes before the data are unused: room for what is to be sent ahead of the data.
    static constexpr std::size_t FRONT = sizeof(std::uint32_t);

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
    // Returns where the new bytes are to be written.
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
    // Bytes that were written behind the end, within the capacity, belong to it from now on.
    void setSize(std::size_t size) { _size = size; }
    // The first bytes, at least FRONT of them, are given up: the room before the data.
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
