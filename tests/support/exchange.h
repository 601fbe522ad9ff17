// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "callback.h"
#include "direct_port.h"

namespace nelvo::testkit {

// A client of arbitrary parcels and an application that completes "play" at once and the state
// never. Beside them runs a model that works out from the parcels' contents what must be answered;
// it ends the process when that is not what comes.
class Exchange {
public:
    Exchange();

    // A healthy step. False: there is none of that letter.
    //
    //   C O U   register the response callback; for a single use; unregister it
    //   R T W   request "play", the state, "late", which nobody registers
    //   X       leave and come back
    //   . _     0.02 s, 31 s pass
    bool step(char code);
    void receive(host::Parcel parcel);
    void finish(); // the library stops, and the answers so far are compared

private:
    void reconnect();
    void pass(int milliseconds);
    void setCb(bool set, host::Parcel &parcel);
    void request(bundle *content);
    void answer(bool success);

    DirectPort &_port = DirectPort::instance();
    Callback _action, _state;
    std::vector<std::string> _wanted; // the answers, described
    std::uint64_t _pending = 0;
    std::uint64_t _nextId = 1;
    int _now = 0, _deadline; // in milliseconds
    int _seq = 0;            // of the client's callback
    int _usesLeft = 0;       // of it
};

} // namespace nelvo::testkit
