// SPDX-License-Identifier: Apache-2.0
#include "frame_reader.h"

#include <algorithm>

namespace host {

namespace {

constexpr std::size_t ROOM_BYTES = std::size_t{128} << 10;
constexpr std::size_t LARGE_BYTES = std::size_t{16} << 10; // worth not being copied
constexpr std::size_t GROWTH = 16;                         // of a frame's memory over what has come
constexpr std::size_t KEPT_BYTES = std::size_t{4} << 10;   // of an empty buffer, per reader

// Shared by all readers: it is empty again before the next one uses it. The loop has one thread.
Bytes &sharedRoom() {
    static Bytes &room = *new Bytes;
    return room;
}

} // namespace

FrameReader::Room FrameReader::room() {
    _isDirect = _hasHeader && !hasMore() && missing() >= LARGE_BYTES;
    if (_isDirect) {
        _frame.reserve(std::min(_length, std::max(_frame.size() * GROWTH, ROOM_BYTES)));
        return {_frame.end(), std::min(_frame.capacity(), _length) - _frame.size()};
    }
    sharedRoom().reserve(ROOM_BYTES);
    return {sharedRoom().data(), ROOM_BYTES};
}

void FrameReader::filled(std::size_t size) {
    if (_isDirect) {
        _frame.setSize(_frame.size() + size);
        return;
    }
    if (adopt(size))
        return;
    const std::uint8_t *const bytes = sharedRoom().data();
    const std::size_t used = hasMore() ? 0 : use(bytes, size);
    _ahead.insert(_ahead.end(), bytes + used, bytes + size);
}

// A large frame that fills the shared room keeps that memory, which saves a copy.
bool FrameReader::adopt(std::size_t size) {
    if (hasBegun() || size < LARGE_BYTES)
        return false;
    Bytes &room = sharedRoom();
    std::size_t length = 0;
    for (std::size_t i = 0; i < HEADER_BYTES; ++i)
        length |= std::size_t{room.data()[i]} << (8 * i);
    if (length != size - HEADER_BYTES || length > _limit)
        return false;
    _frame = std::move(room);
    _frame.setSize(size);
    _frame.dropFront(HEADER_BYTES);
    _headerFilled = HEADER_BYTES;
    _hasHeader = true;
    _length = length;
    return true;
}

void FrameReader::readOn() {
    if (!hasMore() || isWhole())
        return;
    _aheadStart += use(_ahead.data() + _aheadStart, _ahead.size() - _aheadStart);
    if (hasMore())
        return;
    _ahead.clear();
    _aheadStart = 0;
    if (_ahead.capacity() > KEPT_BYTES) // of a burst
        _ahead.shrink_to_fit();
}

// Returns how many bytes belong to the frame: all of them unless it is whole, or too long.
std::size_t FrameReader::use(const std::uint8_t *bytes, std::size_t size) {
    std::size_t used = 0;
    while (_headerFilled < HEADER_BYTES && used < size)
        _length |= std::size_t{bytes[used++]} << (8 * _headerFilled++);
    _hasHeader = _headerFilled == HEADER_BYTES;
    if (!_hasHeader || isTooLong())
        return used;
    const std::size_t part = std::min(missing(), size - used);
    const std::size_t filled = _frame.size() + part;
    if (filled > _frame.capacity() || !_frame.memory())
        _frame.reserve(std::min(_length, filled * GROWTH));
    _frame.append(bytes + used, part);
    return used + part;
}

Bytes FrameReader::take() {
    _headerFilled = 0;
    _hasHeader = false;
    _length = 0;
    return std::exchange(_frame, {});
}

} // namespace host
