// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include <rpc-port-parcel.h>

#include "memory.h"
#include "misuse.h"

namespace host {

// The largest payload of a frame.
constexpr std::size_t MAX_FRAME_BYTES = std::size_t{16} << 20;

// Bytes, and the memory that they are part of.
struct Piece {
    Memory memory;
    const void *data;
    std::size_t size;
};

// The payload of one frame; values are written at its end and read from its front. An
// rpc_port_parcel_h is a pointer to a parcel.
//
// Large values are not copied into bytes. They are inserts, which refer to the memory of a bundle.
struct Parcel {
    struct Insert {
        std::size_t position; // in bytes; the piece comes before the byte at this position
        Piece piece;
    };

    // Calls each(memory, data, size) for every piece of the payload, in order.
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
    LifeMark life;
};

// The parcel of a handle. Null for a null handle, and for a parcel that has been destroyed: the misuse by
// the named function is logged.
inline Parcel *findParcel(rpc_port_parcel_h h, const char *function) {
    auto *const parcel = static_cast<Parcel *>(h);
    return parcel && parcel->life.isAlive(function, "parcel") ? parcel : nullptr;
}

} // namespace host
