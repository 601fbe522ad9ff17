// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <nlohmann/json_fwd.hpp>

#include "cause.h"

namespace nelvoctl {

// Whether stdout is a terminal.
bool isTerminal();

// The text with control characters and invalid UTF-8 escaped.
std::string printable(const std::string &text);

enum class Colour { DIM, GREEN, YELLOW, RED };

// The text in that colour if stdout is a terminal and NO_COLOR is not set.
std::string paint(Colour colour, const std::string &text);

// The text, padded with blanks to that many columns.
std::string padded(const std::string &text, int width);

// The document as text: escaped if stdout is a terminal, invalid UTF-8 replaced.
std::string dump(const nlohmann::json &document, int indent = -1);

// Writes one line to stdout. Throws Failure.
void print(const std::string &line);

// Writes a long text to stdout: if that is a terminal too small for the text, through $PAGER or less.
// Throws Failure.
void page(const std::string &text);

// Writes one line for people to stderr.
void note(const std::string &line);

// The failure as a JSON object.
nlohmann::json toJson(const Failure &failure);

// Reports the failure, as JSON on stdout or as text on stderr; returns the exit code.
int report(const Failure &failure, bool json);

} // namespace nelvoctl
