// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "testkit_export.h"

namespace nelvo::testkit {

// Says for its lifetime whether allocations and platform calls may be made to fail: not those of the
// test kit or a test, at work on the same stack as the library.
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
