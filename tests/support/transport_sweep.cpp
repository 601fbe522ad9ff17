// SPDX-License-Identifier: Apache-2.0
#include "transport_sweep.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

#include <host/sim.h>

#include "target.h"

namespace nelvo::testkit {
namespace {

constexpr double MORE_THAN_A_HANDSHAKE = 5.1;
constexpr double MORE_THAN_A_REQUEST = 31;

const std::vector<std::string> TALKS[] = {{"greet"}, {"getAppContext"}, {"greet", "getAppContext"}};
enum Way { SPLIT, BOTH_ENDS, RESET, ONE_END, FLIP };
const char *const WAYS[] = {"split", "both ends", "reset", "one end", "flip"};

// One session and the application that it is said to.
class Transport {
public:
    Transport(const std::string &folder, const std::vector<std::string> &talk)
        : _target(folder), _session(_target.record(talk)), _size(static_cast<int>(_session.size())),
          _hellos(_session.said[0].bytes.size() + _session.said[1].bytes.size()),
          _baseline(_target.descriptors()) {}

    // Points count through: each way has one per byte, the flips have one per bit.
    int count() const { return _size * (FLIP + 8); }

    bool holds(int point) {
        const Way way = static_cast<Way>(std::min(point / _size, int{FLIP}));
        _place = point - way * _size;
        _point = std::string(WAYS[way]) + " at " + std::to_string(_place) + " of " +
                 std::to_string(_size);
        _holds = true;
        const int calls = _target.calls;
        if (way == FLIP)
            flip();
        else
            interrupt(way, static_cast<std::size_t>(_place) + 1);
        _target.pass(0); // the client is gone
        const int delivered = _target.calls - calls;
        if (way != FLIP)
            must(delivered == requestsWithin(way == SPLIT ? _size : _place + 1),
                 "not all is delivered");
        else if (static_cast<std::size_t>(_place / 8) < _hellos)
            must(delivered == 0, "a wrong hello is taken");
        Replay next(_target.path, _session);
        next.sayAll();
        must(_target.until([&] { return next.isAnswered(); }), "the next client is not served");
        return _holds;
    }

    // What is left when all have gone and all time is over.
    bool isAsBefore() {
        _target.pass(MORE_THAN_A_REQUEST);
        must(_target.descriptors() == _baseline, "descriptors are left");
        must(host_sim_timer_count() == 0, "timers are left");
        return _holds;
    }

private:
    void flip() {
        Replay client(_target.path, _session);
        client.flip(static_cast<std::size_t>(_place));
        client.sayAll();
        _target.pass(0);
    }

    void interrupt(Way way, std::size_t at) {
        Replay client(_target.path, _session);
        client.say(0, std::min(at, _hellos));
        _target.pass(0);
        client.say(_hellos, at);
        if (way == BOTH_ENDS) // together with what has been said, and with nothing left unheard
            client.isAnswered();
        else
            _target.pass(0);
        if (way == SPLIT) {
            client.say(at, _session.size());
            must(_target.until([&] { return client.isAnswered(); }), "it is not served");
        } else if (way == ONE_END) {
            client.sockets[client.channelOf(at - 1)].endSpeech();
            _target.pass(MORE_THAN_A_HANDSHAKE);
            must(client.sockets[0].hasEnded() && client.sockets[1].hasEnded(), "half of it stays");
        }
    }

    int requestsWithin(int bytes) const {
        int count = 0;
        for (const RawSession::Piece &piece : _session.said) {
            bytes -= static_cast<int>(piece.bytes.size());
            count += bytes >= 0 && piece.isRequest();
        }
        return count;
    }

    void must(bool isSo, const char *otherwise) {
        if (!isSo)
            std::fprintf(stderr, "FAILED: %s: %s\n", _point.c_str(), otherwise);
        _holds = _holds && isSo;
    }

    LocalTarget _target;
    const RawSession _session;
    const int _size;
    const std::size_t _hellos; // their bytes
    const int _baseline;
    std::string _point;
    int _place = 0;
    bool _holds = true;
};

// Of a child that may die.
struct Progress {
    int next = 0;
    int count = std::numeric_limits<int>::max(); // until it is known
    Tally tally;
};

void playTalk(const std::string &folder, const std::vector<std::string> &talk, int every,
              Progress &progress) {
    Transport transport(folder, talk);
    progress.count = transport.count();
    while (progress.next < progress.count) {
        alarm(HANG_SECONDS);
        ++progress.tally.points;
        progress.next += every; // a point that kills has been played all the same
        progress.tally.failures +=
            !(transport.holds(progress.next - every) && transport.isAsBefore());
    }
}

} // namespace

Tally sweepTransport(int every, int first) {
    const SocketFolder folder;
    void *const shared =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    Tally total;
    for (const auto &talk : TALKS) {
        auto &progress = *new (shared) Progress;
        progress.next = first++ % every;
        while (progress.next < progress.count) {
            const int before = progress.next;
            const auto name = "transport, point " + std::to_string(before) + " or later";
            const Outcome outcome = inChild(name, [&] {
                playTalk(folder.path(), talk, every, progress);
                return Outcome::HELD;
            });
            progress.tally.failures += outcome == Outcome::BROKEN;
            if (progress.next == before)
                break; // not even begun
        }
        total.points += progress.tally.points;
        total.failures += progress.tally.failures;
    }
    munmap(shared, sizeof(Progress));
    return total;
}

} // namespace nelvo::testkit
