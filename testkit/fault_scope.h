// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "testkit_export.h"

namespace nelvo::testkit {

// Says for its lifetime whether allocations and platform calls may be made to fail: those of the
// library may, those of the test kit and the test, which are on the same stack, may not.
class TESTKIT_API FaultScope {
public:
    explicit FaultScope(bool allowed) : _before(_allowed) { _allowed = allowed; }
    FaultScope(const FaultScope &) = delete;
    FaultScope &operator=(const FaultScope &) = delete;
    ~FaultScope() { _allowed = _before; }

    static bool allowed() { return _allowed; }

private:
    inline static bool _allowed = true;
    bool _before;
};

} // namespace nelvo::testkit
