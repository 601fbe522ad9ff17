// SPDX-License-Identifier: Apache-2.0
#include "memory.h"

namespace host {

Memory::Memory(std::size_t size) {
    if (size > PTRDIFF_MAX - sizeof(Block))
        throw std::bad_alloc();
    _block = new (::operator new(sizeof(Block) + size)) Block{{1}};
}

void Bytes::reserve(std::size_t capacity) {
    if (capacity <= _capacity && _memory)
        return;
    Memory grown(capacity);
    auto *const data = reinterpret_cast<std::uint8_t *>(grown.bytes());
    if (_size > 0)
        std::memcpy(data, _data, _size);
    _capacity = capacity;
    _memory = std::move(grown);
    _data = data;
}

} // namespace host
