// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace host {

// Whether the text may name an application, a sender or a port: 1 to 127 of A-Z a-z 0-9 . _ -, not
// starting with '.' or '-' and without "..". Such a name is safe as part of a file name.
bool isValidName(const char *text);

// The same rule as advice to the user, for messages that refuse a name.
constexpr const char *VALID_NAME_HINT =
    "use up to 127 letters, digits, '.', '_' and '-', not starting with '.' or '-', without \"..\"";

} // namespace host
