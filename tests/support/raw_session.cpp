// SPDX-License-Identifier: Apache-2.0
#include "raw_session.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <utility>

#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "testkit_export.h"
#include "wire.h"

namespace nelvo::testkit {
namespace {

constexpr std::uint32_t SEND = 4;
constexpr std::size_t KIND_AT = 9;
constexpr std::size_t TOKEN_AT = 10;
constexpr std::size_t TOKEN_BYTES = 16;

bool isHandshake(const std::string &frame) {
    return frame.compare(4, 5, "NVRP\x01") == 0;
}

// Whose socket it is shows in the first bytes that are sent on it.
struct Recorder {
    RawSession session;
    std::map<int, std::function<void(const std::string &)>> sockets;

    void add(int fd, const std::string &bytes) {
        auto &keep = sockets[fd];
        if (!keep && isHandshake(bytes) && bytes.size() > TOKEN_AT)
            keep = [this, onCallback = bytes[KIND_AT] == 1](const std::string &more) {
                session.said.push_back({onCallback, more});
            };
        else if (!keep)
            keep = [to = &session.answers[isHandshake(bytes) ? 0 : 1]](const std::string &more) {
                *to += more;
            };
        keep(bytes);
    }
};

Recorder *recorder = nullptr;

} // namespace

RawSocket::RawSocket(const std::string &path)
    : _fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    _connected = connect(_fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
}

RawSocket::RawSocket(RawSocket &&other) noexcept
    : _fd(std::exchange(other._fd, -1)), _connected(other._connected), _ended(other._ended),
      _heard(std::move(other._heard)) {}

RawSocket::~RawSocket() {
    if (_fd >= 0)
        close(_fd);
}

std::size_t RawSocket::say(std::string_view bytes) const {
    const ssize_t count = ::send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void RawSocket::endSpeech() const {
    shutdown(_fd, SHUT_WR);
}

const std::string &RawSocket::heard() {
    char bytes[1 << 16];
    ssize_t count = 0;
    while (!_ended && (count = recv(_fd, bytes, sizeof bytes, 0)) > 0)
        _heard.append(bytes, static_cast<std::size_t>(count));
    _ended = _ended || count == 0 || errno == ECONNRESET;
    return _heard;
}

bool RawSocket::hasEnded() {
    heard();
    return _ended;
}

std::size_t RawSession::size() const {
    std::size_t total = 0;
    for (const Piece &piece : said)
        total += piece.bytes.size();
    return total;
}

bool RawSession::Piece::isRequest() const {
    return bytes.compare(4, 4, wire::number(SEND)) == 0;
}

RawSession recordSession(const std::function<void()> &talk) {
    Recorder here;
    recorder = &here;
    talk();
    recorder = nullptr;
    return here.session;
}

std::string freshToken() {
    static std::uint32_t last = 0;
    return (wire::number(++last) + wire::number(static_cast<std::uint32_t>(getpid())) +
            std::string(TOKEN_BYTES, 't'))
        .substr(0, TOKEN_BYTES);
}

Replay::Replay(const std::string &path, const RawSession &session)
    : sockets{RawSocket(path), RawSocket(path)}, _session(session),
      _lastAnswer(session.answers[1]) {
    const std::string token = freshToken();
    for (RawSession::Piece &piece : _session.said)
        if (isHandshake(piece.bytes))
            piece.bytes.replace(TOKEN_AT, TOKEN_BYTES, token);
}

int Replay::channelOf(std::size_t byte) const {
    auto piece = _session.said.begin();
    for (; byte >= piece->bytes.size(); ++piece)
        byte -= piece->bytes.size();
    return piece->onCallback;
}

void Replay::flip(std::size_t bit) {
    std::size_t at = bit / 8;
    auto piece = _session.said.begin();
    for (; at >= piece->bytes.size(); ++piece)
        at -= piece->bytes.size();
    piece->bytes[at] = static_cast<char>(piece->bytes[at] ^ (1 << bit % 8));
}

void Replay::say(std::size_t from, std::size_t to) {
    std::size_t start = 0;
    for (const RawSession::Piece &piece : _session.said) {
        const std::size_t end = start + piece.bytes.size();
        const std::size_t first = std::max(from, start), last = std::min(to, end);
        if (first < last)
            sockets[piece.onCallback].say(
                std::string_view(piece.bytes).substr(first - start, last - first));
        start = end;
    }
}

void Replay::repeat() {
    sockets[0].say(_session.said.back().bytes);
    _session.answers[1] += _lastAnswer;
}

bool Replay::isAnswered() {
    return sockets[0].heard() == _session.answers[0] && sockets[1].heard() == _session.answers[1];
}

} // namespace nelvo::testkit

// These two stand before the C library's own, so that they see what the platform sends.
extern "C" TESTKIT_API ssize_t send(int fd, const void *bytes, std::size_t size, int flags) {
    using Send = ssize_t (*)(int, const void *, std::size_t, int);
    static const auto real = reinterpret_cast<Send>(dlsym(RTLD_NEXT, "send"));
    const ssize_t sent = real(fd, bytes, size, flags);
    if (nelvo::testkit::recorder && sent > 0)
        nelvo::testkit::recorder->add(
            fd, {static_cast<const char *>(bytes), static_cast<std::size_t>(sent)});
    return sent;
}

extern "C" TESTKIT_API ssize_t sendmsg(int fd, const msghdr *message, int flags) {
    using Send = ssize_t (*)(int, const msghdr *, int);
    static const auto real = reinterpret_cast<Send>(dlsym(RTLD_NEXT, "sendmsg"));
    const ssize_t sent = real(fd, message, flags);
    if (nelvo::testkit::recorder && sent > 0) {
        std::string bytes;
        for (std::size_t i = 0; i < message->msg_iovlen; ++i)
            bytes.append(static_cast<const char *>(message->msg_iov[i].iov_base),
                         message->msg_iov[i].iov_len);
        nelvo::testkit::recorder->add(fd, bytes.substr(0, static_cast<std::size_t>(sent)));
    }
    return sent;
}
