// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include <sys/uio.h>

#include "parcel.h"

namespace host {

// Bytes that wait until a socket can take them. Large pieces are kept by reference. Small pieces
// are copied into a common block, since each of them could keep a much larger block alive.
class SendQueue {
public:
    static constexpr std::size_t MAX_PARTS = 16; // per system call

    bool isEmpty() const { return _size == 0; }
    std::size_t size() const { return _size; }

    // Throws std::bad_alloc; the queue must not be used afterwards.
    void add(const Piece &piece) {
        if (_pieces.capacity() < _pieces.size() + 2) // for this piece and the tail
            _pieces.reserve(2 * _pieces.size() + 2);
        if (piece.size >= LARGE) {
            endTail();
            _pieces.push_back(piece);
        } else {
            _tail.append(piece.data, piece.size);
        }
        _size += piece.size;
    }

    // Writes the first pieces of the queue to parts, and returns the number of parts.
    std::size_t front(iovec (&parts)[MAX_PARTS]) {
        endTail();
        const std::size_t count = std::min(MAX_PARTS, _pieces.size() - _first);
        for (std::size_t i = 0; i < count; ++i) {
            const Piece &piece = _pieces[_first + i];
            parts[i] = {const_cast<void *>(piece.data), piece.size};
        }
        return count;
    }

    void consume(std::size_t size) {
        _size -= size;
        for (; size > 0 && size >= _pieces[_first].size; ++_first)
            size -= std::exchange(_pieces[_first], Piece{}).size;
        if (_first == _pieces.size()) {
            clear();
            return;
        }
        Piece &piece = _pieces[_first];
        piece.data = static_cast<const char *>(piece.data) + size;
        piece.size -= size;
        if (_first > _pieces.size() / 2) {
            _pieces.erase(_pieces.begin(), _pieces.begin() + static_cast<std::ptrdiff_t>(_first));
            _first = 0;
        }
    }

    void clear() { *this = SendQueue(); }

private:
    static constexpr std::size_t LARGE = std::size_t{4} << 10;

    void endTail() {
        if (_tail.size() == 0)
            return;
        _pieces.push_back({_tail.memory(), _tail.data(), _tail.size()});
        _tail = Bytes();
    }

    std::vector<Piece> _pieces;
    std::size_t _first = 0;
    Bytes _tail; // small pieces behind the last of _pieces
    std::size_t _size = 0;
};

} // namespace host
