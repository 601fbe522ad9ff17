// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace nelvo::testkit {

// What an application finds where its socket is to be.
struct Place {
    const char *name;
    const char *prepare;           // a command: $D is the folder, empty so far, $S the socket in it
    const char *refusal = nullptr; // what the log says; null: it is served there
    std::size_t pathBytes = 0;     // of the socket; 0: any number
    bool isBusy = false;
};

extern const std::vector<Place> PLACES;

// Whether the application refuses the place or is served there, as it should be; and whether it can be
// served at home once that place is gone. For a process of its own; home is not there yet.
bool standsAt(const std::string &home, const Place &place);

} // namespace nelvo::testkit
