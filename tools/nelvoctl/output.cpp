// SPDX-License-Identifier: Apache-2.0
#include "output.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include <sys/ioctl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

namespace nelvoctl {

namespace {

void appendEscaped(std::string &shown, char byte) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(byte));
    shown += byte == '\n' ? "\\n" : byte == '\t' ? "\\t" : hex;
}

// How many columns a printable text takes.
int widthOf(const std::string &text) {
    int width = 0;
    for (char byte : text)
        width += (static_cast<unsigned char>(byte) & 0xC0) !=
                 0x80; // not for the further bytes of a character
    return width;
}

} // namespace

bool isTerminal() {
    return isatty(STDOUT_FILENO) == 1;
}

std::string printable(const std::string &text) {
    std::string shown;
    std::mbstate_t state{};
    for (std::size_t i = 0; i < text.size();) {
        wchar_t character = 0;
        const std::size_t size = std::mbrtowc(&character, &text[i], text.size() - i, &state);
        if (size <= text.size() && size > 0 && std::iswprint(static_cast<std::wint_t>(character))) {
            shown.append(text, i, size);
            i += size;
        } else {
            state = {};
            appendEscaped(shown, text[i++]);
        }
    }
    return shown;
}

std::string paint(Colour colour, const std::string &text) {
    static const char *const CODES[] = {"\x1b[2m", "\x1b[32m", "\x1b[33m", "\x1b[31m"};
    if (!isTerminal() || std::getenv("NO_COLOR"))
        return text;
    return CODES[static_cast<int>(colour)] + text + "\x1b[0m";
}

std::string padded(const std::string &text, int width) {
    const int missing = width - widthOf(text);
    return missing > 0 ? text + std::string(static_cast<std::size_t>(missing), ' ') : text;
}

std::string dump(const nlohmann::json &document, int indent) {
    return document.dump(indent, ' ', isTerminal(), nlohmann::json::error_handler_t::replace);
}

void print(const std::string &line) {
    if (std::printf("%s\n", line.c_str()) < 0 || std::fflush(stdout) != 0)
        throw Failure(Cause::OUTPUT,
                      std::string("could not write to stdout: ") + std::strerror(errno));
}

void page(const std::string &text) {
    winsize size{};
    const bool isSized = isTerminal() && ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0;
    if (isSized && std::count(text.begin(), text.end(), '\n') >= size.ws_row) {
        const char *chosen = std::getenv("PAGER");
        if (std::FILE *const pager = popen(chosen && *chosen ? chosen : "less", "w")) {
            std::fputs(text.c_str(), pager);
            if (pclose(pager) == 0)
                return;
        }
    }
    print(text.substr(0, text.find_last_not_of('\n') + 1));
}

void note(const std::string &line) {
    std::fprintf(stderr, "nelvoctl: %s\n", printable(line).c_str());
}

nlohmann::json toJson(const Failure &failure) {
    const CauseEntry &entry = failure.entry();
    return {{"cause", entry.name},
            {"message", failure.message},
            {"remedy", entry.remedy},
            {"exitCode", entry.exitCode}};
}

int report(const Failure &failure, bool json) {
    const CauseEntry &entry = failure.entry();
    // If stdout cannot be written, the failure can only go to stderr.
    if (json && failure.cause != Cause::OUTPUT)
        print(dump({{"error", toJson(failure)}}));
    else
        note(std::string(entry.name) + ": " + failure.message + "; " + entry.remedy);
    return entry.exitCode;
}

} // namespace nelvoctl
