// SPDX-License-Identifier: Apache-2.0
#include "send_queue.h"

#include <algorithm>
#include <utility>

namespace host {

namespace {

constexpr std::size_t LARGE = std::size_t{4} << 10; // from here on a piece is kept by reference

} // namespace

void SendQueue::add(const Piece &piece) {
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

std::size_t SendQueue::front(iovec (&parts)[MAX_PARTS]) {
    endTail();
    const std::size_t count = std::min(MAX_PARTS, _pieces.size() - _first);
    for (std::size_t i = 0; i < count; ++i) {
        const Piece &piece = _pieces[_first + i];
        parts[i] = {const_cast<void *>(piece.data), piece.size};
    }
    return count;
}

void SendQueue::consume(std::size_t size) {
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

// Does not allocate: add() has reserved room for the tail.
void SendQueue::endTail() {
    if (_tail.size() == 0)
        return;
    _pieces.push_back({_tail.memory(), _tail.data(), _tail.size()});
    _tail = Bytes();
}

} // namespace host
