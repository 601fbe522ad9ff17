// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace nelvoctl {

// The words that are spelled like the mistyped one, as "; did you mean \"seek\"?"; else "".
std::string suggestion(const std::vector<std::string> &words, const std::string &mistyped);

} // namespace nelvoctl
