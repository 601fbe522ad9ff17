// SPDX-License-Identifier: Apache-2.0
// A number of bytes that each read takes at most, 0 for no limit, then what comes over a socket: a
// hello and further frames. The frames are those that can be read off the bytes as a whole, and a
// hello that is decoded is encoded to the same bytes again.
#include <algorithm>
#include <cstring>
#include <vector>

#include "frame_reader.h"
#include "fuzzing.h"
#include "handshake.h"
#include "parcel_values.h"

using Frames = std::vector<std::string>;

static const std::uint32_t MAX_FRAME_BYTES = 1 << 16; // of those behind the hello

// The payloads that the stream holds, up to what is incomplete or too long.
static Frames framesOf(std::string stream) {
    Frames frames;
    std::uint32_t size = 0;
    while (stream.size() >= sizeof size) {
        std::memcpy(&size, stream.data(), sizeof size);
        stream.erase(0, sizeof size);
        const std::size_t limit = frames.empty() ? host::MAX_HELLO_BYTES : MAX_FRAME_BYTES;
        if (size > std::min(limit, stream.size()))
            break;
        frames.push_back(stream.substr(0, size));
        stream.erase(0, size);
    }
    return frames;
}

static Frames readFrames(const std::string &stream, std::size_t readBytes) {
    Frames frames;
    host::FrameReader reader;
    reader.setLimit(host::MAX_HELLO_BYTES);
    for (std::size_t at = 0; at < stream.size() && !reader.isTooLong();) {
        const host::FrameReader::Room room = reader.room();
        const std::size_t size = std::min({room.size, readBytes, stream.size() - at});
        std::copy_n(stream.data() + at, size, room.at);
        reader.filled(size);
        at += size;
        for (; reader.isWhole() && !reader.isTooLong(); reader.readOn()) {
            const host::Bytes frame = reader.take();
            frames.emplace_back(reinterpret_cast<const char *>(frame.data()), frame.size());
            reader.setLimit(MAX_FRAME_BYTES);
        }
    }
    return frames;
}

void nelvo::testkit::fuzz(Input input) {
    const std::size_t readBytes = input.byte();
    const std::string stream = input.rest();
    const Frames frames = framesOf(stream);
    require(readFrames(stream, readBytes > 0 ? readBytes : stream.size()) == frames, "the frames");
    const std::string first = frames.empty() ? "" : frames[0];
    const auto hello = host::decodeHello(parcelOf(first).bytes);
    require(!hello || bytesOf(host::encodeHello(*hello)) == first, "a hello made again");
}
