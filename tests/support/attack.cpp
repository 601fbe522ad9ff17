// SPDX-License-Identifier: Apache-2.0
#include "attack.h"

#include <string_view>

#include "wire.h"

namespace nelvo::testkit {
namespace {

constexpr double MORE_THAN_A_HANDSHAKE = 5.1;

} // namespace

Attack::Attack(Target &attacked, const RawSession &honest)
    : target(attacked), _session(honest), _honest(attacked.path, honest) {
    _honest.sayAll();
    must(target.until([this] { return _honest.isAnswered(); }), "the honest client is not served");
    _baseline = target.descriptors();
}

RawSocket &Attack::open(const std::string &bytes) {
    RawSocket *socket = &sockets.emplace_back(target.path);
    const bool isOpen = target.until([&] { // the queue for new clients may be full
        if (!socket->isConnected()) {
            sockets.pop_back();
            socket = &sockets.emplace_back(target.path);
        }
        return socket->isConnected();
    });
    must(isOpen, "it takes no client");
    say(*socket, bytes);
    return *socket;
}

RawSocket &Attack::connect(const std::string &sender) {
    const std::string token = freshToken();
    open(wire::hello(1, token, sender));
    RawSocket &main = open(wire::hello(0, token, sender));
    target.until([&] { return !main.heard().empty() || main.hasEnded(); });
    return main;
}

bool Attack::say(RawSocket &socket, const std::string &bytes) {
    std::string_view left(bytes);
    const auto sayMore = [&] {
        left.remove_prefix(socket.say(left));
        return left.empty();
    };
    std::size_t before = 0;
    while (before != left.size() && !sayMore()) {
        before = left.size();
        target.until([&] { return sayMore() || left.size() < before || socket.hasEnded(); });
    }
    return left.empty();
}

void Attack::mustEnd(RawSocket &socket) {
    must(target.until([&] { return socket.hasEnded(); }), "the attacker's connection stays");
}

void Attack::mustStay(RawSocket &socket) {
    for (int rounds = 0; rounds < 3; ++rounds) // each of which the application may use to end it
        mustServe();
    must(!socket.hasEnded(), "the attacker's connection ends");
}

void Attack::mustHear(RawSocket &socket, const std::string &text) {
    const auto isHeard = [&] { return socket.heard().find(text) != std::string::npos; };
    must(target.until(isHeard), "the attacker does not get its answer");
}

void Attack::mustServe() {
    _honest.repeat();
    must(target.until([this] { return _honest.isAnswered(); }), "the honest client is not served");
}

void Attack::must(bool isSo, const std::string &otherwise) {
    if (!isSo)
        _complaints.push_back(otherwise);
}

void Attack::finish() {
    mustServe();
    sockets.clear();
    target.pass(MORE_THAN_A_HANDSHAKE);
    {
        Replay next(target.path, _session);
        must(next.sockets[1].isConnected(), "the next client is not let in");
        next.sayAll();
        must(target.until([&] { return next.isAnswered(); }), "the next client is not served");
    }
    must(target.until([this] { return target.descriptors() == _baseline; }),
         "descriptors are left");
}

} // namespace nelvo::testkit
