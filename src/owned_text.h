// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdlib>
#include <memory>

namespace nelvo {

struct FreeText {
    void operator()(char *text) const { std::free(text); }
};

// A text from malloc, as the platform hands it out.
using OwnedText = std::unique_ptr<char, FreeText>;

} // namespace nelvo
