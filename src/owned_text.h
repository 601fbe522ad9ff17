// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <memory>

namespace nelvo {

struct FreeText {
    void operator()(char *text) const { std::free(text); }
};

// A text allocated by malloc(), as the platform's functions return them.
using OwnedText = std::unique_ptr<char, FreeText>;

} // namespace nelvo
