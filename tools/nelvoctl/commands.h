// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>

#include "exchange.h"

namespace nelvoctl {

// Gives the parser every command. Parsing fills the call, which must outlive the parser.
void addCommands(CLI::App &parser, Call &call);

} // namespace nelvoctl
