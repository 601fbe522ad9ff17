// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace nelvo::testkit {

// A client's socket, for one that speaks bytes. Nothing waits.
class RawSocket {
public:
    explicit RawSocket(const std::string &path);
    RawSocket(RawSocket &&other) noexcept;
    RawSocket &operator=(RawSocket &&) = delete;
    ~RawSocket();

    bool isConnected() const { return _connected; } // the application may not have noticed yet
    std::size_t say(std::string_view bytes) const;  // how many of them the socket took
    void endSpeech() const;
    const std::string &heard(); // so far
    bool hasEnded();            // the application has closed it, or let it be reset

private:
    int _fd;
    bool _connected;
    bool _ended = false;
    std::string _heard;
};

// What a client and an application have said to each other, byte for byte.
struct RawSession {
    struct Piece {
        bool onCallback; // or on main
        std::string bytes;

        bool isRequest() const; // a whole Send
    };
    std::vector<Piece> said; // by the client, both channels in the order of time
    std::string answers[2];  // by the application, on main and on callback

    std::size_t size() const;
};

// What a client of this process says while the talk lasts, and hears. It connects once.
RawSession recordSession(const std::function<void()> &talk);

// 16 bytes that no earlier connection has had.
std::string freshToken();

// A client that says again what another one has said, under a token of its own.
class Replay {
public:
    Replay(const std::string &path, const RawSession &session);

    int channelOf(std::size_t byte) const; // on which that byte is said
    void flip(std::size_t bit);
    void say(std::size_t from,
             std::size_t to); // of all bytes; what the application closes, it closes
    void sayAll() { say(0, _session.size()); }
    // Its last request once more.
    void repeat();
    // Whether it has heard what the other one heard, and after each repeat() the last answer again.
    bool isAnswered();

    RawSocket sockets[2]; // main, callback

private:
    RawSession _session;
    std::string _lastAnswer;
};

} // namespace nelvo::testkit
