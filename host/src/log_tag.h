// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace host {

constexpr char LOG_TAG[] = "NELVO-HOST";

} // namespace host
