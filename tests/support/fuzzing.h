// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace nelvo::testkit {

// Takes an input apart, from its front. Behind its end everything is zero or empty.
class Input {
public:
    Input(const std::uint8_t *data, std::size_t size)
        : _left(reinterpret_cast<const char *>(data), size) {}

    bool isEmpty() const { return _left.empty(); }
    std::uint8_t byte() { return static_cast<std::uint8_t>(take(1)[0]); }
    std::string take(std::size_t size) {
        std::string taken = _left.substr(0, size);
        _left.erase(0, size);
        return taken;
    }
    std::string rest() { return take(_left.size()); }
    // Without its line end.
    std::string line() {
        std::string taken = take(_left.find('\n'));
        take(1);
        return taken;
    }
    // With "_" for all that is not plain ASCII.
    std::string printableLine() {
        std::string taken = line();
        for (char &byte : taken)
            byte = byte < ' ' || byte > '~' ? '_' : byte;
        return taken;
    }

private:
    std::string _left;
};

// What a fuzz target defines: takes one input, with the log switched off.
void fuzz(Input input);

// Ends the process, which is what makes an input a finding, unless it holds.
inline void require(bool holds, const std::string &what) {
    if (holds)
        return;
    std::fprintf(stderr, "not as it should be: %s\n", what.c_str());
    std::abort();
}

} // namespace nelvo::testkit
