// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "cause.h"

namespace nelvoctl {

// Whether what goes to stdout is read by a person.
bool isTerminal();

// The text with everything escaped that a terminal could obey, and what is not UTF-8.
std::string printable(const std::string &text);

enum class Colour { DIM, GREEN, YELLOW, RED };

// The text in that colour if stdout is a terminal and NO_COLOR is not set.
std::string paint(Colour colour, const std::string &text);

// The text and so many blanks that it is width columns wide.
std::string padded(const std::string &text, int width);

// Fit for a terminal where stdout is one. Texts of applications need not be UTF-8: what is not is
// replaced.
std::string dump(const nlohmann::json &document, int indent = -1);

// Writes one line to stdout. Throws Failure.
void print(const std::string &line);

// Writes one line for people to stderr.
void note(const std::string &line);

// The failure as a member of a document.
nlohmann::json toJson(const Failure &failure);

// Says what went wrong, as JSON on stdout or in words on stderr; returns the exit code.
int report(const Failure &failure, bool json);

} // namespace nelvoctl
