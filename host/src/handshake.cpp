// SPDX-License-Identifier: Apache-2.0
#include "handshake.h"

#include <cstring>

namespace host {

Parcel encodeWelcome() {
    Parcel parcel;
    parcel.bytes.append(HANDSHAKE_START, sizeof(HANDSHAKE_START));
    return parcel;
}

bool isWelcome(const Bytes &bytes) {
    return bytes.size() == sizeof(HANDSHAKE_START) &&
           std::memcmp(bytes.data(), HANDSHAKE_START, sizeof(HANDSHAKE_START)) == 0;
}

Parcel encodeHello(const Hello &hello) {
    const std::string sender = hello.sender.substr(0, MAX_SENDER_BYTES + 1);
    Parcel parcel = encodeWelcome();
    *parcel.bytes.extend(1) = static_cast<std::uint8_t>(hello.kind);
    parcel.bytes.append(hello.token.data(), hello.token.size());
    *parcel.bytes.extend(1) = static_cast<std::uint8_t>(sender.size());
    parcel.bytes.append(sender.data(), sender.size());
    return parcel;
}

std::optional<Hello> decodeHello(const Bytes &bytes) {
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
