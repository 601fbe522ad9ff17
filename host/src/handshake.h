// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <host/runtime_dir.h>
#include <rpc-port.h>

#include "parcel.h"

namespace host {

// The two messages that open a connection, each the payload of one frame.
//
//   hello    "NVRP" version kind token[16] length sender[length]
//   welcome  "NVRP" version
//
// A hello is the first frame on each of the two sockets; the welcome is the answer on the main one.
// Version, kind (an rpc_port_port_type_e) and length are single bytes.
constexpr char HANDSHAKE_START[] = {'N', 'V', 'R', 'P', HOST_PROTOCOL_VERSION};
constexpr std::size_t MAX_SENDER_BYTES = 127;
constexpr double HANDSHAKE_SECONDS = 5.0; // to complete a connection, on either side

struct Hello {
    rpc_port_port_type_e kind;
    std::array<std::uint8_t, 16> token; // random; the same on both sockets of one connection
    std::string sender;
};

constexpr std::size_t HELLO_HEAD_BYTES = sizeof(HANDSHAKE_START) + 1 + sizeof(Hello::token) + 1;
constexpr std::size_t MAX_HELLO_BYTES = HELLO_HEAD_BYTES + MAX_SENDER_BYTES;

Parcel encodeWelcome();
bool isWelcome(const Bytes &bytes);

// A sender that is too long is cut to a length that the other side still refuses.
Parcel encodeHello(const Hello &hello);
// Does not check the sender, except for zeros inside.
std::optional<Hello> decodeHello(const Bytes &bytes);

} // namespace host
