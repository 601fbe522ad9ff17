// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace host {

// Whether text may name an application, a sender or a port: 1 to 127 of A-Z a-z 0-9 . _ -, neither
// starting with '.' or '-' nor with ".." inside. Such a name is safe as part of a file name.
bool isValidName(const char *text);

// The same as advice, for messages that refuse a name.
constexpr const char *VALID_NAME_HINT =
    "use up to 127 letters, digits, '.', '_' and '-', not starting with '.' or '-', without \"..\"";

} // namespace host
