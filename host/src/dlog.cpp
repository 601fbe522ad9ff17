// SPDX-License-Identifier: Apache-2.0
#include <dlog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>
#include <unistd.h>

#include <host/log.h>

#include "log_tag.h"

namespace {

constexpr std::size_t LONGEST_TEXT = 16 * 1024;
constexpr std::string_view CUT_MARK = " [cut]";

struct Level {
    const char *name; // as in NELVO_LOG
    const char *colour;
};

// Indexed by priority, from DLOG_VERBOSE. An entry begins with the first letter as a capital.
constexpr Level LEVELS[] = {
    {"verbose", "\x1b[2m"}, {"debug", "\x1b[36m"},   {"info", "\x1b[32m"}, {"warn", "\x1b[33m"},
    {"error", "\x1b[31m"},  {"fatal", "\x1b[1;31m"}, {"silent", ""},
};
constexpr const char *COLOUR_END = "\x1b[0m";

struct Entry {
    log_priority prio;
    const char *tag;

    const Level &level() const { return LEVELS[prio - DLOG_VERBOSE]; }
    char letter() const { return static_cast<char>(level().name[0] - 'a' + 'A'); }
};

struct Sink {
    host_log_sink call = nullptr; // null: stderr
    void *data = nullptr;
};

std::mutex sinkMutex;
Sink installedSink;

// The lowest priority that is written. Lets dlog_print() refuse other entries without a lock.
std::atomic<int> threshold{0}; // 0: not known yet

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Returns the length of the first character if it can be written to a terminal unescaped, else 0:
// for control characters (including C1, which some terminals obey) and invalid UTF-8.
std::size_t printableLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7F ? 1 : 0;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length ||
        !std::all_of(&text[1], &text[0] + length, isContinuation))
        return 0;
    unsigned code = first & (0x7Fu >> length);
    for (std::size_t i = 1; i < length; ++i)
        code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3Fu);
    const unsigned smallest = length == 2 ? 0xA0 : length == 3 ? 0x800 : 0x10000;
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    return code >= smallest && code <= 0x10FFFF && !isSurrogate ? length : 0;
}

void appendEscaped(std::string &line, char byte) {
    char hex[8];
    std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(byte));
    line += byte == '\n' ? "\\n" : byte == '\r' ? "\\r" : byte == '\t' ? "\\t" : hex;
}

void appendPrintable(std::string &line, std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = printableLength(text);
        if (length == 0)
            appendEscaped(line, text[0]);
        line += text.substr(0, length);
        text.remove_prefix(length > 0 ? length : 1);
    }
}

// Uses the clock of the main loop, so that entries of several processes can be compared.
std::string timestamp() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    char text[32];
    std::snprintf(text, sizeof text, "%lld.%06ld ", static_cast<long long>(now.tv_sec),
                  now.tv_nsec / 1000);
    return text;
}

std::string lineOf(const Entry &entry, std::string_view text) {
    static const bool isTimed = std::getenv("NELVO_LOG_TIME");
    static const bool isColoured = isatty(STDERR_FILENO) == 1 && !std::getenv("NO_COLOR");
    const bool isCut = text.size() > LONGEST_TEXT;
    std::size_t end = isCut ? LONGEST_TEXT : text.size();
    while (isCut && end > LONGEST_TEXT - 4 && isContinuation(text[end]))
        --end; // do not cut inside a character

    std::string line(isTimed ? timestamp() : "");
    line.reserve(end + 64);
    line += isColoured ? entry.level().colour : "";
    line += entry.letter();
    line += ' ';
    appendPrintable(line, entry.tag);
    line += ": ";
    appendPrintable(line, text.substr(0, end));
    if (isCut)
        line += CUT_MARK;
    if (isColoured)
        line += COLOUR_END;
    line += '\n';
    return line;
}

// Writes the line with one call, so that lines of several threads and processes do not mix. Another
// call is needed only if the system wrote a part.
int writeLine(std::string_view line) {
    std::size_t done = 0;
    while (done < line.size()) {
        const ssize_t written = write(STDERR_FILENO, line.data() + done, line.size() - done);
        if (written < 0 && errno != EINTR)
            return -errno;
        done += written > 0 ? static_cast<std::size_t>(written) : 0;
    }
    return static_cast<int>(done);
}

int writeEntry(const Entry &entry, std::string_view text) {
    try {
        return writeLine(lineOf(entry, text));
    } catch (...) { // out of memory: write the beginning, without allocations
        char line[256];
        std::snprintf(line, sizeof line - 1, "%c %.40s: %.*s", entry.letter(), entry.tag,
                      static_cast<int>(std::min(text.size(), sizeof line)), text.data());
        char *end = line + std::strlen(line);
        std::replace_if(
            line, end, [](char byte) { return byte < ' ' || byte > '~'; }, '?');
        *end++ = '\n';
        return writeLine({line, static_cast<std::size_t>(end - line)});
    }
}

int readLevel() {
    const char *wanted = std::getenv("NELVO_LOG");
    if (!wanted || *wanted == '\0')
        return DLOG_WARN;
    for (const Level &level : LEVELS) {
        if (std::strcmp(wanted, level.name) == 0)
            return DLOG_VERBOSE + static_cast<int>(&level - LEVELS);
    }
    char complaint[256];
    std::snprintf(complaint, sizeof complaint,
                  "NELVO_LOG is \"%.64s\", taken as warn; set it to verbose, debug, info, warn, "
                  "error, fatal or silent",
                  wanted);
    writeEntry({DLOG_WARN, host::LOG_TAG}, complaint);
    return DLOG_WARN;
}

int level() {
    static const int value = readLevel();
    return value;
}

Sink currentSink() {
    const int own = level(); // before the lock, since it may log
    std::lock_guard<std::mutex> lock(sinkMutex);
    threshold.store(installedSink.call ? int{DLOG_VERBOSE} : own, std::memory_order_relaxed);
    return installedSink;
}

int printTo(const Sink &sink, const Entry &entry, const char *fmt, va_list args) {
    va_list again; // for a second pass, if the text is longer than the buffer
    va_copy(again, args);
    char start[512];
    const int length = std::vsnprintf(start, sizeof start, fmt, args);
    std::string_view text(start, std::min(static_cast<std::size_t>(length), sizeof start - 1));
    std::string whole;
    if (length > 0 && static_cast<std::size_t>(length) > text.size()) {
        try {
            whole.resize(static_cast<std::size_t>(length));
            std::vsnprintf(whole.data(), whole.size() + 1, fmt, again);
            text = whole;
        } catch (...) { // out of memory: only the beginning is written
        }
    }
    va_end(again);
    if (length < 0)
        return -EINVAL;
    if (!sink.call)
        return writeEntry(entry, text);
    sink.call(entry.prio, entry.tag, text.data(), sink.data);
    return static_cast<int>(text.size());
}

// Not inlined: dlog_print() would save registers for this function even if the entry is not wanted,
// which costs 120 instructions per request.
[[gnu::noinline]] int print(const Entry &entry, const char *fmt, va_list args) {
    const int errnoBefore = errno; // callers may log before they look at errno
    const Sink sink = currentSink();
    const bool isWanted = sink.call || entry.prio >= level();
    const int result = isWanted ? printTo(sink, entry, fmt, args) : 0;
    errno = errnoBefore;
    return result;
}

} // namespace

int dlog_print(log_priority prio, const char *tag, const char *fmt, ...) {
    if (prio < DLOG_VERBOSE || prio > DLOG_FATAL)
        return -EINVAL;
    if (prio < threshold.load(std::memory_order_relaxed))
        return 0;
    if (!tag || !fmt)
        return -EINVAL;
    va_list args;
    va_start(args, fmt);
    const int result = print({prio, tag}, fmt, args);
    va_end(args);
    return result;
}

void host_log_set_sink(host_log_sink sink, void *data) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    installedSink = {sink, data};
    threshold.store(0, std::memory_order_relaxed);
}
