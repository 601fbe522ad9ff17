// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "target.h"

namespace nelvo::testkit {

// What an attack does to an application, and what must come of it. The attacker's sockets stay open
// until the attack is over.
class Attack {
public:
    Attack(Target &target, const RawSession &honest);

    // A socket on which this has been said at once.
    RawSocket &open(const std::string &bytes = "");
    // Both halves of a connection, complete; gives the main one. The callback one comes before it.
    RawSocket &connect(const std::string &sender = "mallory");
    // Every byte, however long the application takes for them; false when it ends the connection.
    bool say(RawSocket &socket, const std::string &bytes);

    void mustEnd(RawSocket &socket);
    void mustStay(RawSocket &socket);
    void mustHear(RawSocket &socket, const std::string &text);
    // The honest client asks once more.
    void mustServe();
    void must(bool isSo, const std::string &otherwise);

    // Once more, then without the attacker, then a new client, then a look at what is left.
    void finish();

    bool holds() const { return _complaints.empty(); }
    const std::vector<std::string> &complaints() const { return _complaints; }
    LocalTarget &local() { return dynamic_cast<LocalTarget &>(target); }

    Target &target;
    std::deque<RawSocket> sockets;

private:
    int _baseline = 0;
    const RawSession &_session;
    Replay _honest;
    std::vector<std::string> _complaints;
};

constexpr unsigned EXAMPLE_DESCRIPTORS = 128; // its limit

struct AttackRow {
    enum Where { BOTH, LOCAL, EXAMPLE };
    std::string name;
    std::function<void(Attack &)> run;
    Where where = BOTH;
    const char *logLevel = "debug"; // of the example; "error" for what would fill gigabytes
};

// All of them.
std::vector<AttackRow> attacks();

} // namespace nelvo::testkit
