// SPDX-License-Identifier: Apache-2.0
// A number that says where the stream is split in two, then the stream of one of a client's sockets,
// from its hello on; the other one says the hello that goes with it. What the server hears of them is
// what can be read off the bytes as a whole.
#include <algorithm>

#include "channel.h"
#include "frame_reader.h"
#include "fuzzing.h"
#include "names.h"
#include "raw_stream.h"

// The frames that the reader alone makes of the same bytes.
static std::vector<std::string> readFrames(const std::string &stream, std::size_t split) {
    host::FrameReader reader;
    reader.setLimit(host::MAX_HELLO_BYTES);
    std::vector<std::string> frames;
    for (std::size_t at = 0; at < stream.size() && !reader.isTooLong();) {
        const auto room = reader.room();
        const std::size_t end = at < split ? std::min(split, stream.size()) : stream.size();
        const std::size_t size = std::min(room.size, end - at);
        std::copy_n(stream.data() + at, size, room.at);
        reader.filled(size);
        at += size;
        for (; reader.isWhole(); reader.readOn()) {
            const host::Bytes frame = reader.take();
            frames.emplace_back(reinterpret_cast<char *>(frame.data()), frame.size());
            reader.setLimit(host::MAX_FRAME_BYTES);
        }
    }
    return frames;
}

void nelvo::testkit::fuzz(Input input) {
    const std::size_t split = input.byte();
    const std::string stream = input.rest();
    std::vector<std::string> frames = framesOf(stream);
    require(readFrames(stream, split) == frames, "the frames of the reader");
    auto hello = host::decodeHello(parcelOf(frames.empty() ? "" : frames[0]).bytes);
    require(!hello || bytesOf(host::encodeHello(*hello)) == frames[0], "a hello encoded again");
    if (!hello || !host::isValidName(hello->sender.c_str()))
        hello.reset();
    const bool isMain = hello && hello->kind == RPC_PORT_PORT_MAIN;
    frames.erase(frames.begin(), isMain ? frames.begin() + 1 : frames.end());

    ListeningServer server;
    {
        const RawSocket socket, other;
        if (hello) {
            hello->kind = isMain ? RPC_PORT_PORT_CALLBACK : RPC_PORT_PORT_MAIN;
            other.sendFrame(bytesOf(host::encodeHello(*hello)));
        }
        socket.send(stream.substr(0, split));
        socket.send(stream.substr(std::min(split, stream.size())));
        require(server.frames == frames, "the frames");
    }
    host_sim_advance(0);
    require(server.events == (hello ? "+" + hello->sender + " -" + hello->sender + " " : ""),
            "the events: " + server.events);
}
