// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace host {

// The two messages that open a connection, each the payload of one frame.
//
//   hello    "NVRP" version kind token[16] length sender[length]    first on each of the two
//   sockets welcome  "NVRP" version                                         the answer, on the main
//   one
//
// Version, kind and length are single bytes.
constexpr char HANDSHAKE_MAGIC[] = {'N', 'V', 'R', 'P'};
constexpr std::uint8_t HANDSHAKE_VERSION = 1;
constexpr std::size_t MAX_SENDER_BYTES = 127;

enum class ChannelKind : std::uint8_t { MAIN = 0, CALLBACK = 1 };

// Random; says which two sockets belong together.
using Token = std::array<std::uint8_t, 16>;

struct Hello {
    ChannelKind kind;
    Token token;
    std::string sender;
};

constexpr std::size_t WELCOME_BYTES = sizeof(HANDSHAKE_MAGIC) + 1;
constexpr std::size_t HELLO_HEAD_BYTES = WELCOME_BYTES + 1 + std::tuple_size<Token>::value + 1;
constexpr std::size_t MAX_HELLO_BYTES = HELLO_HEAD_BYTES + MAX_SENDER_BYTES;

inline std::vector<std::uint8_t> encodeWelcome() {
    std::vector<std::uint8_t> bytes(std::begin(HANDSHAKE_MAGIC), std::end(HANDSHAKE_MAGIC));
    bytes.push_back(HANDSHAKE_VERSION);
    return bytes;
}

// A sender that is too long is cut where the other side still sees that it is.
inline std::vector<std::uint8_t> encodeHello(const Hello &hello) {
    const std::string sender = hello.sender.substr(0, MAX_SENDER_BYTES + 1);
    std::vector<std::uint8_t> bytes = encodeWelcome();
    bytes.push_back(static_cast<std::uint8_t>(hello.kind));
    bytes.insert(bytes.end(), hello.token.begin(), hello.token.end());
    bytes.push_back(static_cast<std::uint8_t>(sender.size()));
    bytes.insert(bytes.end(), sender.begin(), sender.end());
    return bytes;
}

inline bool opensHandshake(const std::vector<std::uint8_t> &bytes) {
    return bytes.size() >= WELCOME_BYTES &&
           std::memcmp(bytes.data(), HANDSHAKE_MAGIC, sizeof(HANDSHAKE_MAGIC)) == 0 &&
           bytes[sizeof(HANDSHAKE_MAGIC)] == HANDSHAKE_VERSION;
}

inline bool decodeWelcome(const std::vector<std::uint8_t> &bytes) {
    return bytes.size() == WELCOME_BYTES && opensHandshake(bytes);
}

// Does not judge the sender, except that it has no zero inside.
inline bool decodeHello(const std::vector<std::uint8_t> &bytes, Hello &hello) {
    if (bytes.size() < HELLO_HEAD_BYTES || !opensHandshake(bytes)) {
        return false;
    }
    const std::uint8_t kind = bytes[WELCOME_BYTES];
    const std::uint8_t length = bytes[HELLO_HEAD_BYTES - 1];
    if (kind > static_cast<std::uint8_t>(ChannelKind::CALLBACK) ||
        bytes.size() != HELLO_HEAD_BYTES + length) {
        return false;
    }
    hello.kind = static_cast<ChannelKind>(kind);
    std::memcpy(hello.token.data(), &bytes[WELCOME_BYTES + 1], hello.token.size());
    hello.sender.assign(bytes.begin() + HELLO_HEAD_BYTES, bytes.end());
    return hello.sender.find('\0') == std::string::npos;
}

} // namespace host
