// SPDX-License-Identifier: Apache-2.0
#include <dlog.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unistd.h>

#include <host/log.h>

#include "log_tag.h"

namespace {

constexpr std::size_t LONGEST_TEXT = 16 * 1024;
constexpr std::string_view CUT_MARK = " [cut]";
constexpr int SILENT = DLOG_FATAL + 1;

struct Level {
    const char *name; // in NELVO_LOG
    char letter;      // in front of an entry
    const char *colour;
};

// By priority, from DLOG_VERBOSE to SILENT.
constexpr Level LEVELS[] = {
    {"verbose", 'V', "\x1b[2m"}, {"debug", 'D', "\x1b[36m"}, {"info", 'I', "\x1b[32m"},
    {"warn", 'W', "\x1b[33m"},   {"error", 'E', "\x1b[31m"}, {"fatal", 'F', "\x1b[1;31m"},
    {"silent", '\0', nullptr},
};
constexpr const char *COLOUR_END = "\x1b[0m";

const Level &levelOf(int prio) {
    return LEVELS[prio - DLOG_VERBOSE];
}

struct Sink {
    host_log_sink call = nullptr; // null: stderr
    void *data = nullptr;
};

std::mutex sinkMutex;
Sink installedSink;

Sink currentSink() {
    std::lock_guard<std::mutex> lock(sinkMutex);
    return installedSink;
}

// Callers log first and look at errno later.
class ErrnoKeeper {
public:
    ~ErrnoKeeper() { errno = _errno; }

private:
    int _errno = errno;
};

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// The length of the character at the front of text if a terminal may have it as it is; 0 for a
// control character (C1, which some terminals obey, included) and for what is not UTF-8.
std::size_t printableLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7F ? 1 : 0;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length)
        return 0;
    unsigned code = first & (0x7Fu >> length);
    for (std::size_t i = 1; i < length; i++) {
        if (!isContinuation(text[i]))
            return 0;
        code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3Fu);
    }
    const unsigned smallest = length == 2 ? 0xA0 : length == 3 ? 0x800 : 0x10000;
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    return code >= smallest && code <= 0x10FFFF && !isSurrogate ? length : 0;
}

void appendEscaped(std::string &line, char byte) {
    if (byte == '\n') {
        line += "\\n";
    } else if (byte == '\r') {
        line += "\\r";
    } else if (byte == '\t') {
        line += "\\t";
    } else {
        constexpr char DIGITS[] = "0123456789abcdef";
        const auto value = static_cast<unsigned char>(byte);
        line += {'\\', 'x', DIGITS[value >> 4], DIGITS[value & 0xF]};
    }
}

void appendPrintable(std::string &line, std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = printableLength(text);
        if (length > 0)
            line += text.substr(0, length);
        else
            appendEscaped(line, text[0]);
        text.remove_prefix(length > 0 ? length : 1);
    }
}

std::string_view cut(std::string_view text) {
    std::size_t end = LONGEST_TEXT;
    while (end > LONGEST_TEXT - 4 && isContinuation(text[end]))
        end--; // not inside a character
    return text.substr(0, end);
}

std::string lineOf(int prio, const char *tag, std::string_view text) {
    static const bool isColoured = isatty(STDERR_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
    std::string line;
    line.reserve(text.size() + 64);
    if (isColoured)
        line += levelOf(prio).colour;
    line += levelOf(prio).letter;
    line += ' ';
    appendPrintable(line, tag);
    line += ": ";
    appendPrintable(line, text.size() > LONGEST_TEXT ? cut(text) : text);
    if (text.size() > LONGEST_TEXT)
        line += CUT_MARK;
    if (isColoured)
        line += COLOUR_END;
    line += '\n';
    return line;
}

// One write per entry keeps those of several threads and processes apart; the loop is for the rare
// remainder.
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

int readLevel() {
    const char *wanted = std::getenv("NELVO_LOG");
    if (wanted == nullptr || *wanted == '\0')
        return DLOG_WARN;
    std::string names;
    for (int prio = DLOG_VERBOSE; prio <= SILENT; prio++) {
        if (std::strcmp(wanted, levelOf(prio).name) == 0)
            return prio;
        names += prio == DLOG_VERBOSE ? "" : prio == SILENT ? " or " : ", ";
        names += levelOf(prio).name;
    }
    const std::string complaint = "NELVO_LOG is \"" + std::string(wanted, strnlen(wanted, 64)) +
                                  "\", taken as warn; set it to " + names;
    writeLine(lineOf(DLOG_WARN, host::LOG_TAG, complaint));
    return DLOG_WARN;
}

int level() {
    static const int value = readLevel();
    return value;
}

// At most limit bytes of the text. False: the format or an argument is beyond printf.
__attribute__((format(printf, 3, 0))) bool format(std::string &text, std::size_t limit,
                                                  const char *fmt, va_list args) {
    char small[512];
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(small, sizeof small, fmt, args);
    bool isDone = length >= 0;
    if (isDone && static_cast<std::size_t>(length) < sizeof small) {
        text.assign(small, static_cast<std::size_t>(length));
    } else if (isDone) {
        text.resize(std::min(static_cast<std::size_t>(length), limit));
        isDone = std::vsnprintf(text.data(), text.size() + 1, fmt, again) >= 0;
    }
    va_end(again);
    return isDone;
}

__attribute__((format(printf, 3, 0))) int print(log_priority prio, const char *tag, const char *fmt,
                                                va_list args) {
    const Sink sink = currentSink();
    if (sink.call == nullptr && prio < level())
        return 0;
    std::string text;
    // One byte more than will be shown tells that there is more.
    if (!format(text, sink.call != nullptr ? text.max_size() : LONGEST_TEXT + 1, fmt, args))
        return -EINVAL;
    if (sink.call == nullptr)
        return writeLine(lineOf(prio, tag, text));
    sink.call(prio, tag, text.c_str(), sink.data);
    return static_cast<int>(text.size());
}

// An entry that there is no memory for: its beginning, from the stack alone.
__attribute__((format(printf, 3, 0))) int printShort(log_priority prio, const char *tag,
                                                     const char *fmt, va_list args) {
    const Sink sink = currentSink();
    char text[256];
    if (std::vsnprintf(text, sizeof text, fmt, args) < 0)
        return -EINVAL;
    if (sink.call != nullptr) {
        sink.call(prio, tag, text, sink.data);
        return static_cast<int>(std::strlen(text));
    }
    char line[sizeof text + 64];
    std::snprintf(line, sizeof line, "%c %.40s: %s", levelOf(prio).letter, tag, text);
    std::size_t size = std::strlen(line);
    std::replace_if(
        line, line + size, [](char byte) { return byte < ' ' || byte > '~'; }, '?');
    line[size++] = '\n';
    return writeLine({line, size});
}

} // namespace

int dlog_print(log_priority prio, const char *tag, const char *fmt, ...) {
    const ErrnoKeeper keeper;
    if (prio < DLOG_VERBOSE || prio > DLOG_FATAL || tag == nullptr || fmt == nullptr)
        return -EINVAL;
    va_list args;
    va_list again;
    va_start(args, fmt);
    va_copy(again, args);
    int result = -ENOMEM;
    try {
        result = print(prio, tag, fmt, args);
    } catch (const std::bad_alloc &) {
        result = printShort(prio, tag, fmt, again);
    }
    va_end(again);
    va_end(args);
    return result;
}

void host_log_set_sink(host_log_sink sink, void *data) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    installedSink = {sink, data};
}
