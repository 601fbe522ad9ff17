// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
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
    void add(const Piece &piece);
    // Writes the first pieces of the queue to parts, and returns the number of parts.
    std::size_t front(iovec (&parts)[MAX_PARTS]);
    // Removes bytes that have been sent.
    void consume(std::size_t size);
    void clear() { *this = SendQueue(); }

private:
    void endTail();

    std::vector<Piece> _pieces; // those before _first have been sent
    std::size_t _first = 0;
    Bytes _tail; // small pieces behind the last of _pieces
    std::size_t _size = 0;
};

} // namespace host
