// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <vector>

#include <rpc-port.h>

#include "parcel.h"

namespace nelvo::testkit {

// A connection without a transport: in the program that this is linked into, it stands before the
// platform's ports, gives the application's stub its events and keeps what is sent to the client.
// There is one stub at a time, and one client.
struct DirectPort {
    std::vector<host::Parcel> replies;   // on the main port
    std::vector<host::Parcel> callbacks; // on the callback port

    void connect(const char *sender);
    void disconnect();
    // What the stub's callback returned; when that is not 0 the platform would disconnect.
    int receive(const host::Parcel &parcel);

    static DirectPort &instance();
};

} // namespace nelvo::testkit
