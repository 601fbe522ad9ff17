// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include "memory.h"

namespace host {

// Bytes that stay where they are, and what keeps them there.
struct Piece {
    Memory memory;
    const void *data;
    std::size_t size;
};

// What stands behind an rpc_port_parcel_h: the payload of one frame, written at its end and read
// from its front.
//
// Values stand one after the other, without tags or padding, in the machine's own byte order. Large
// ones are not copied: they belong between the other bytes.
struct Parcel {
    struct Insert {
        std::size_t position; // in bytes: it comes before the byte that is there
        Piece piece;
    };

    // Gives the payload to each(memory, data, size), in its order, in as few pieces as it has.
    template <typename Each>
    void forEachPiece(Each each) const {
        std::size_t done = 0;
        for (const Insert &insert : inserts) {
            each(bytes.memory(), bytes.data() + done, insert.position - done);
            each(insert.piece.memory, insert.piece.data, insert.piece.size);
            done = insert.position;
        }
        each(bytes.memory(), bytes.data() + done, bytes.size() - done);
    }

    std::size_t size() const {
        std::size_t size = bytes.size();
        for (const Insert &insert : inserts)
            size += insert.piece.size;
        return size;
    }

    Bytes bytes;
    std::vector<Insert> inserts;
    std::size_t readPosition = 0;
};

} // namespace host
