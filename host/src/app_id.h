// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

namespace host {

// This process's application id; empty when it has none or memory ran out.
std::string ownAppId();

} // namespace host
