// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "memory.h"

namespace host {

// Takes a stream of bytes apart into frames: a length (four bytes, the lowest first) and that many bytes
// of payload. Knows nothing of sockets.
//
// The memory of a frame grows with the bytes that have come, not with the length that is announced. All
// functions that take bytes throw std::bad_alloc; the reader is then of no use any more.
class FrameReader {
public:
    static constexpr std::size_t HEADER_BYTES = 4;

    // Where the next bytes of the stream are to be written; then say how many there were.
    struct Room {
        std::uint8_t *at;
        std::size_t size;
    };
    Room room();
    void filled(std::size_t size);

    // Goes on with the bytes that came behind the latest frame. Frames before are unaffected by a limit
    // that is set later.
    void readOn();
    void setLimit(std::size_t frameBytes) { _limit = frameBytes; }

    bool isWhole() const { return _hasHeader && _frame.size() == _length; }
    bool isTooLong() const { return _hasHeader && _length > _limit; }
    // A frame has begun, or bytes of the next one are there.
    bool hasBegun() const { return _headerFilled > 0 || hasMore(); }
    bool hasMore() const { return _aheadStart < _ahead.size(); }
    // Only when the frame is whole.
    Bytes take();

private:
    std::size_t use(const std::uint8_t *bytes, std::size_t size);
    bool adopt(std::size_t size);
    std::size_t missing() const { return _length - _frame.size(); }

    std::size_t _limit = 0;
    std::size_t _headerFilled = 0; // 0: no frame has begun
    bool _hasHeader = false;
    bool _isDirect = false; // the room is the frame's own
    std::size_t _length = 0;
    Bytes _frame;
    std::vector<std::uint8_t> _ahead; // behind the frame, not looked at yet
    std::size_t _aheadStart = 0;
};

} // namespace host
