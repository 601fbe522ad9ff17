// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>

#include <rpc-port.h>

#include "channel.h"

namespace host {

// The two messages that open a connection, each the payload of one frame.
//
//   hello    "NVRP" version kind token[16] length sender[length]
//   welcome  "NVRP" version
//
// A hello is the first frame on each of the two sockets; the welcome is the answer on the main one.
// Version, kind (an rpc_port_port_type_e) and length are single bytes.
constexpr char HANDSHAKE_START[] = {'N', 'V', 'R', 'P', 1};
constexpr std::size_t MAX_SENDER_BYTES = 127;
constexpr double HANDSHAKE_SECONDS = 5.0; // to complete a connection, on either side

struct Hello {
    rpc_port_port_type_e kind;
    std::array<std::uint8_t, 16> token; // random; the same on both sockets of one connection
    std::string sender;
};

constexpr std::size_t HELLO_HEAD_BYTES = sizeof(HANDSHAKE_START) + 1 + sizeof(Hello::token) + 1;
constexpr std::size_t MAX_HELLO_BYTES = HELLO_HEAD_BYTES + MAX_SENDER_BYTES;

inline Parcel encodeWelcome() {
    Parcel parcel;
    parcel.bytes.append(HANDSHAKE_START, sizeof(HANDSHAKE_START));
    return parcel;
}

inline bool isWelcome(const Bytes &bytes) {
    return bytes.size() == sizeof(HANDSHAKE_START) &&
           std::memcmp(bytes.data(), HANDSHAKE_START, sizeof(HANDSHAKE_START)) == 0;
}

// A sender that is too long is cut to a length that the other side still refuses.
inline Parcel encodeHello(const Hello &hello) {
    const std::string sender = hello.sender.substr(0, MAX_SENDER_BYTES + 1);
    Parcel parcel = encodeWelcome();
    *parcel.bytes.extend(1) = static_cast<std::uint8_t>(hello.kind);
    parcel.bytes.append(hello.token.data(), hello.token.size());
    *parcel.bytes.extend(1) = static_cast<std::uint8_t>(sender.size());
    parcel.bytes.append(sender.data(), sender.size());
    return parcel;
}

// Does not check the sender, except for zeros inside.
inline std::optional<Hello> decodeHello(const Bytes &bytes) {
    const std::uint8_t *const at = bytes.data();
    if (bytes.size() < HELLO_HEAD_BYTES ||
        std::memcmp(at, HANDSHAKE_START, sizeof(HANDSHAKE_START)) != 0 ||
        at[sizeof(HANDSHAKE_START)] > RPC_PORT_PORT_CALLBACK ||
        bytes.size() != HELLO_HEAD_BYTES + at[HELLO_HEAD_BYTES - 1]) {
        return std::nullopt;
    }
    Hello hello{};
    hello.kind = static_cast<rpc_port_port_type_e>(at[sizeof(HANDSHAKE_START)]);
    std::memcpy(hello.token.data(), at + sizeof(HANDSHAKE_START) + 1, hello.token.size());
    hello.sender.assign(at + HELLO_HEAD_BYTES, at + bytes.size());
    return hello.sender.find('\0') == std::string::npos ? std::optional(hello) : std::nullopt;
}

} // namespace host
