// SPDX-License-Identifier: Apache-2.0
#include "names.h"

#include <cstring>

namespace host {

bool isValidName(const char *text) {
    constexpr std::size_t LONGEST_NAME = 127;
    constexpr const char *CHARACTERS =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    const std::size_t length = text ? std::strspn(text, CHARACTERS) : 0;
    return length > 0 && length <= LONGEST_NAME && text[length] == '\0' && text[0] != '.' &&
           text[0] != '-' && !std::strstr(text, "..");
}

} // namespace host
