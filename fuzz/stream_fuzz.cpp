// SPDX-License-Identifier: Apache-2.0
// A number that says where the stream is split in two, then the stream of one of a client's
// sockets, from its hello on; the other socket says the hello that goes with it. What the server
// hears of them is what can be read off the bytes as a whole.
#include <algorithm>
#include <cstring>
#include <vector>

#include <unistd.h>

#include <host/sim.h>

#include "channel.h"
#include "fuzzing.h"
#include "handshake.h"
#include "names.h"
#include "parcel_values.h"
#include "raw_client.h"
#include "rpc_peers.h"
#include "simulated_ports.h"

using namespace nelvo::testkit;

// The payloads that the stream holds, up to what is incomplete or too long.
static std::vector<std::string> framesOf(std::string stream) {
    std::vector<std::string> frames;
    std::uint32_t size = 0;
    while (stream.size() >= sizeof size) {
        std::memcpy(&size, stream.data(), sizeof size);
        stream.erase(0, sizeof size);
        const std::size_t limit = frames.empty() ? host::MAX_HELLO_BYTES : host::MAX_FRAME_BYTES;
        if (size > std::min(limit, stream.size()))
            break;
        frames.push_back(stream.substr(0, size));
        stream.erase(0, size);
    }
    return frames;
}

static RawSocket connectToServer() {
    return RawSocket(dup(host::connectToSimulatedPort("demo.app:message").get()));
}

void nelvo::testkit::fuzz(Input input) {
    const std::size_t split = input.byte();
    const std::string stream = input.rest();
    std::vector<std::string> frames = framesOf(stream);
    const auto hello = host::decodeHello(parcelOf(frames.empty() ? "" : frames[0]).bytes);
    const bool isMain = hello && hello->kind == RPC_PORT_PORT_MAIN;
    const auto helloOn = [&](char channel) {
        return wire::hello(channel, {hello->token.begin(), hello->token.end()}, hello->sender);
    };
    require(!hello || helloOn(isMain ? wire::MAIN : wire::CALLBACK) == wire::frame(frames[0]),
            "a hello made again");
    const bool isTaken = hello && host::isValidName(hello->sender.c_str());
    frames.erase(frames.begin(), isTaken && isMain ? frames.begin() + 1 : frames.end());

    host_sim_start();
    host_sim_set_manifest("<manifest><ui-application appid='demo.app'/></manifest>");
    peers::Server server;
    std::vector<std::string> received;
    server.onReceived = [&](rpc_port_h port) {
        rpc_port_parcel_h parcel = nullptr;
        const int error = rpc_port_parcel_create_from_port(&parcel, port);
        if (error == RPC_PORT_ERROR_NONE)
            received.push_back(bytesOf(*static_cast<host::Parcel *>(parcel)));
        rpc_port_parcel_destroy(parcel);
        return error;
    };
    {
        const RawSocket socket = connectToServer(), other = connectToServer();
        const auto say = [](const RawSocket &on, const std::string &bytes) {
            on.say(bytes);
            host_sim_advance(0);
        };
        if (isTaken)
            say(other, helloOn(isMain ? wire::CALLBACK : wire::MAIN));
        say(socket, stream.substr(0, split));
        say(socket, stream.substr(std::min(split, stream.size())));
        require(received == frames, "the frames");
    }
    host_sim_advance(0);
    require(server.events == (isTaken ? "+" + hello->sender + " -" + hello->sender + " " : ""),
            "the events: " + server.events);
}
