// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// A client that is made of bytes, right ones and wrong ones: docs/host-platform.md describes frames
// and hellos, docs/client-guide.md parcels.
namespace nelvo::testkit {

namespace wire {

std::string number(std::uint32_t value); // the lowest byte is the first
std::string frame(const std::string &payload);
std::string text(const std::string &value);

enum Channel : char { MAIN, CALLBACK };
// The token is cut or filled up to its 16 bytes.
std::string hello(char channel, const std::string &token, const std::string &sender = "raw");
std::string freshToken(); // which no earlier connection of this process has had

// Entries of a bundle, and bundles.
enum Type : char { TEXT = 1, TEXTS = 2, BYTES = 3 };
std::string entry(char type, const std::string &key, const std::string &value);
std::string bundleOf(const std::vector<std::string> &entries);

// Framed parcels for the library.
std::string method(int id, const std::string &arguments = "");
std::string setCb();
std::string request(const std::string &actionId, const std::string &params = "");

} // namespace wire

// One socket of a client. Nothing waits.
class RawSocket {
public:
    explicit RawSocket(const std::string &path);
    explicit RawSocket(int fd) : _fd(fd) {}
    RawSocket(RawSocket &&other) noexcept;
    RawSocket &operator=(RawSocket &&) = delete;
    ~RawSocket();

    bool isConnected() const { return _connected; }    // perhaps not yet accepted
    std::size_t say(std::string_view bytes) const;     // how many bytes the socket took
    void passDescriptor(std::string_view bytes) const; // beside the bytes
    void endSpeech() const;
    const std::string &heard(); // so far
    bool hasEnded();            // the other side has closed or reset the connection

private:
    int _fd;
    bool _connected = true;
    bool _ended = false;
    std::string _heard;
};

} // namespace nelvo::testkit
