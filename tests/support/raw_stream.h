// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include <sys/socket.h>

#include <host/sim.h>

#include "handshake.h"
#include "parcel_values.h"
#include "rpc_peers.h"
#include "simulated_ports.h"

// A client that is made of bytes, for programs that the host platform's objects are linked into.
namespace nelvo::testkit {

// The payloads that a client's stream holds, up to what is incomplete or too long.
inline std::vector<std::string> framesOf(std::string stream) {
    std::vector<std::string> frames;
    for (host::Parcel header = parcelOf(stream); const auto length = readInt(header);) {
        const auto size = static_cast<std::uint32_t>(*length);
        if (size > (frames.empty() ? host::MAX_HELLO_BYTES : host::MAX_FRAME_BYTES) ||
            size > stream.size() - sizeof size)
            break;
        frames.push_back(stream.substr(sizeof size, size));
        header = parcelOf(stream.erase(0, sizeof size + size));
    }
    return frames;
}

struct RawDevice {
    RawDevice() {
        host_sim_start();
        host_sim_set_manifest("<manifest><ui-application appid='demo.app'/></manifest>");
    }
};

// Serves "message" on that device and keeps what comes.
struct ListeningServer : RawDevice, peers::Server {
    ListeningServer() {
        onReceived = [this](rpc_port_h port) {
            rpc_port_parcel_h parcel = nullptr;
            const int error = rpc_port_parcel_create_from_port(&parcel, port);
            if (error == RPC_PORT_ERROR_NONE)
                frames.push_back(bytesOf(*static_cast<host::Parcel *>(parcel)));
            rpc_port_parcel_destroy(parcel);
            return error;
        };
    }
    std::vector<std::string> frames;
};

// One of the two sockets of a client of that server.
class RawSocket {
public:
    RawSocket() : _end(host::connectToSimulatedPort("demo.app:message")) {}
    // They have arrived when it returns.
    void send(const std::string &bytes) const {
        ::send(_end.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        host_sim_advance(0);
    }
    // Of less than 256 bytes.
    void sendFrame(const std::string &payload) const {
        send(std::string{static_cast<char>(payload.size()), 0, 0, 0} + payload);
    }

private:
    host::UniqueFd _end;
};

} // namespace nelvo::testkit
