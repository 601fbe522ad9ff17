// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "memory.h"

namespace host {

// Splits a stream of bytes into frames: a length (four bytes, the lowest first) and a payload of
// that length. Does not know where the bytes come from.
//
// The memory of a frame grows with the bytes that have arrived, not with the announced length.
// Functions that take bytes throw std::bad_alloc, and the reader must not be used afterwards.
class FrameReader {
public:
    static constexpr std::size_t HEADER_BYTES = 4;

    // Where the next bytes of the stream are to be written. The caller writes at most size bytes
    // and reports their number with filled(), before any other reader is used.
    struct Room {
        std::uint8_t *at;
        std::size_t size;
    };
    Room room();
    void filled(std::size_t size);

    // Continues with bytes that arrived behind the previous frame.
    void readOn();
    // The largest allowed payload. Does not affect a frame that is whole already.
    void setLimit(std::size_t frameBytes) { _limit = frameBytes; }

    bool isWhole() const { return hasHeader() && _frame.size() == _length; }
    bool isTooLong() const { return hasHeader() && _length > _limit; }
    // A frame is incomplete or whole, or further bytes have arrived behind the previous one.
    bool hasBegun() const { return _headerFilled > 0 || hasMore(); }
    // Bytes have arrived behind the current frame.
    bool hasMore() const { return _aheadStart < _ahead.size(); }
    // Returns the payload of a whole frame, and begins the next frame.
    Bytes take();

private:
    std::size_t use(const std::uint8_t *bytes, std::size_t size);
    bool adopt(std::size_t size);
    bool hasHeader() const { return _headerFilled == HEADER_BYTES; }
    std::size_t missing() const { return _length - _frame.size(); }

    std::size_t _limit = 0;
    std::uint8_t _header[HEADER_BYTES];
    std::size_t _headerFilled = 0;
    std::size_t _length = 0;          // of the payload, once the header is complete
    Bytes _frame;                     // the part of the payload that has arrived
    bool _isDirect = false;           // room() has returned a place inside _frame
    std::vector<std::uint8_t> _ahead; // bytes that arrived behind the frame, from _aheadStart on
    std::size_t _aheadStart = 0;
};

} // namespace host
