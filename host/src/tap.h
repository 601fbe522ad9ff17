// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "parcel.h"

namespace host {

// Shows what passes through the served ports to the program that asked for it: see host/tap.h. Main-loop
// thread only.
class Tap {
public:
    // Opens it if the environment asks for that. A repeated call does nothing.
    static void open();
    static bool isOpen() { return socket >= 0; }
    // Must be called only while the tap is open. Blocks while the other side does not read.
    static void write(const char *event, const std::string &connection, const void *bytes = nullptr,
                      std::size_t size = 0);
    static void write(const char *event, const std::string &connection, const Parcel &parcel);

private:
    static void writeLine(const char *event, const std::string &connection, std::size_t size);
    static void writeBytes(const void *bytes, std::size_t size);

    static int socket; // -1: not open
};

} // namespace host
