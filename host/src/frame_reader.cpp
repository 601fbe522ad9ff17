// SPDX-License-Identifier: Apache-2.0
#include "frame_reader.h"

#include <algorithm>
#include <cstring>

namespace host {

namespace {

constexpr std::size_t ROOM_BYTES = std::size_t{128} << 10;
constexpr std::size_t LARGE_BYTES = std::size_t{16} << 10; // from here on copying is avoided
constexpr std::size_t GROWTH = 16; // largest ratio of a frame's memory to its bytes so far
constexpr std::size_t KEPT_BYTES = std::size_t{4} << 10; // largest empty buffer that is kept

// The room of all readers, which is empty whenever another one needs it: there is one thread.
Bytes &sharedRoom() {
    static Bytes &room = *new Bytes;
    return room;
}

std::size_t lengthIn(const std::uint8_t *header) {
    std::size_t length = 0;
    for (std::size_t i = 0; i < FrameReader::HEADER_BYTES; ++i)
        length |= std::size_t{header[i]} << (8 * i);
    return length;
}

} // namespace

FrameReader::Room FrameReader::room() {
    _isDirect = hasHeader() && !hasMore() && missing() >= LARGE_BYTES;
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

// If the room holds exactly one large frame, the room's memory becomes the frame's memory. Avoids a
// copy; the next frame gets a new room.
bool FrameReader::adopt(std::size_t size) {
    Bytes &room = sharedRoom();
    if (hasBegun() || size < LARGE_BYTES || lengthIn(room.data()) != size - HEADER_BYTES ||
        size - HEADER_BYTES > _limit)
        return false;
    _frame = std::move(room);
    _frame.setSize(size);
    _frame.dropFront(HEADER_BYTES);
    _headerFilled = HEADER_BYTES;
    _length = size - HEADER_BYTES;
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
    if (_ahead.capacity() > KEPT_BYTES)
        _ahead.shrink_to_fit();
}

// Returns how many of the bytes belong to the current frame: all of them, unless they complete the
// frame or it is too long.
std::size_t FrameReader::use(const std::uint8_t *bytes, std::size_t size) {
    const std::size_t used = std::min(HEADER_BYTES - _headerFilled, size);
    std::memcpy(_header + _headerFilled, bytes, used);
    _headerFilled += used;
    if (hasHeader())
        _length = lengthIn(_header);
    if (!hasHeader() || isTooLong())
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
    return std::move(_frame); // leaves _frame empty
}

} // namespace host
