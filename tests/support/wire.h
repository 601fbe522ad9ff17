// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// The bytes of docs/host-platform.md, right ones and wrong ones.
namespace nelvo::testkit::wire {

inline std::string number(std::uint32_t value) {
    return {reinterpret_cast<const char *>(&value), sizeof value}; // the lowest byte is the first
}

// A frame, or whatever else follows its length.
inline std::string sized(const std::string &bytes) {
    return number(static_cast<std::uint32_t>(bytes.size())) + bytes;
}

inline std::string text(const std::string &value) {
    return sized(value + '\0');
}

inline std::string hello(char kind, const std::string &token,
                         const std::string &sender = "mallory") {
    return sized(std::string("NVRP\x01", 5) + kind + token + static_cast<char>(sender.size()) +
                 sender);
}

inline std::string entry(char type, const std::string &key, const std::string &value) {
    return type + text(key) + value;
}

inline std::string bundle(const std::vector<std::string> &entries) {
    std::string bytes = number(static_cast<std::uint32_t>(entries.size()));
    for (const std::string &one : entries)
        bytes += one;
    return sized(bytes);
}

inline std::string method(int number_, const std::string &arguments = "") {
    return sized(number(static_cast<std::uint32_t>(number_)) + arguments);
}

} // namespace nelvo::testkit::wire
