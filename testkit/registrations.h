// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <set>
#include <string>

#include <nelvo/testkit.h>

namespace nelvo::testkit {

// Finds in the library's log which actions have a callback now.
//
// The library removes a callback that is replaced by null, and logs a removal and a registration
// then, just as for an application that removes a callback and at once registers another one. The
// latter makes no sense, so the two lines are read as a removal.
class Registrations {
public:
    void heed(const LogLine &line);

    const std::set<std::string> &actionIds() const { return _actionIds; }

private:
    std::set<std::string> _actionIds;
    std::string _removed; // by the line before; else empty
};

} // namespace nelvo::testkit
