// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string_view>

namespace nelvo::client {

namespace {

using nlohmann::json;
using Kind = EventKind;

constexpr int VERSION = 1;
constexpr const char *NAMES[] = {"connected", "registered", "unregistered",
                                 "request",   "answer",     "gone"}; // in the order of Kind
constexpr std::string_view DIGITS =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string toBase64(std::string_view bytes) {
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        std::uint32_t group = 0;
        for (std::size_t j = 0; j < 3; ++j)
            group =
                group << 8 | (i + j < bytes.size() ? static_cast<unsigned char>(bytes[i + j]) : 0);
        for (std::size_t j = 0; j < 4; ++j)
            text += i + j <= bytes.size() ? DIGITS[group >> (18 - 6 * j) & 63] : '=';
    }
    return text;
}

std::string fromBase64(const std::string &text) {
    std::string bytes;
    std::uint32_t group = 0;
    int bits = 0;
    for (const char character : text.substr(0, text.find('='))) {
        const std::size_t digit = DIGITS.find(character);
        if (digit == DIGITS.npos)
            throw std::invalid_argument("\"" + text + "\" is not base64");
        group = group << 6 | static_cast<std::uint32_t>(digit);
        bits += 6;
        if (bits >= 8)
            bytes += static_cast<char>(group >> (bits -= 8) & 255);
    }
    return bytes;
}

// A text as JSON, which holds only UTF-8.
json textToJson(const std::string &text) {
    try {
        static_cast<void>(json(text).dump());
        return text;
    } catch (const json::type_error &) {
        return {{"text", toBase64(text)}};
    }
}

std::string textFromJson(const json &value) {
    return value.is_string() ? value.get<std::string>()
                             : fromBase64(value.at("text").get<std::string>());
}

void addEntryCb(const char *key, const int type, const bundle_keyval_t *entry, void *data) {
    auto &[content, entries] = *static_cast<std::pair<bundle *, json> *>(data);
    void *value = nullptr;
    std::size_t size = 0;
    int count = 0;
    if (type == BUNDLE_TYPE_STR_ARRAY) {
        const char **const texts = bundle_get_str_array(content, key, &count);
        json &array = entries[key] = json::array();
        for (int i = 0; i < count; ++i)
            array.push_back(textToJson(texts[i]));
    } else if (bundle_keyval_get_basic_val(const_cast<bundle_keyval_t *>(entry), &value, &size) ==
               BUNDLE_ERROR_NONE) {
        const std::string bytes(static_cast<const char *>(value), size);
        entries[key] =
            type == BUNDLE_TYPE_STR ? textToJson(bytes.c_str()) : json{{"bytes", toBase64(bytes)}};
    }
}

// Throws if the condition does not hold.
void expect(bool holds, const std::string &what) {
    if (!holds)
        throw std::invalid_argument("expected " + what);
}

// Reads events one by one, and finds what cannot follow.
class EventReader {
public:
    SessionEvent read(const json &line) {
        expect(line.is_object(), "an event, a JSON object");
        SessionEvent event;
        event.kind = kindOf(line.value("event", json()));
        const json seconds = line.value("seconds", json()), client = line.value("client", json());
        expect(seconds.is_number() && seconds.get<double>() >= _seconds,
               "\"seconds\" that are not before those of the event before");
        expect(line.value("connection", json()).is_number_integer(), "a number as \"connection\"");
        expect(client.is_string(), "the client's id as \"client\"");
        event.seconds = _seconds = seconds.get<double>();
        event.connection = line["connection"].get<int>();
        event.client = client.get<std::string>();
        event.app = line.value("app", "");
        const bool isOpen = _open.count(event.connection) != 0;
        expect(isOpen == (event.kind != Kind::CONNECTED),
               isOpen ? "a connection that is not there yet" : "a connection that is there");
        if (event.kind == Kind::CONNECTED)
            _open.insert(event.connection);
        else if (event.kind == Kind::GONE)
            _open.erase(event.connection);
        else if (event.kind == Kind::REQUEST || event.kind == Kind::ANSWER)
            event.entries = line.value("entries", json());
        if (!event.entries.is_null())
            toBundle(event.entries);
        return event;
    }

private:
    static Kind kindOf(const json &name) {
        for (std::size_t i = 0; i < std::size(NAMES); ++i)
            if (name == NAMES[i])
                return static_cast<Kind>(i);
        throw std::invalid_argument("expected as \"event\" connected, registered, unregistered, "
                                    "request, answer or gone");
    }

    double _seconds = 0;
    std::set<int> _open; // connections
};

} // namespace

json toJson(bundle *content) {
    std::pair<bundle *, json> all(content, json::object());
    bundle_foreach(content, addEntryCb, &all);
    return all.second;
}

BundlePtr toBundle(const json &entries) {
    expect(entries.is_object(), "an object as \"entries\"");
    BundlePtr made(bundle_create());
    try {
        for (const auto &[key, value] : entries.items()) {
            int error = BUNDLE_ERROR_NONE;
            if (value.is_array()) {
                std::vector<std::string> texts;
                std::vector<const char *> pointers;
                for (const json &element : value)
                    texts.push_back(textFromJson(element));
                for (const std::string &text : texts)
                    pointers.push_back(text.c_str());
                error = bundle_add_str_array(made.get(), key.c_str(), pointers.data(),
                                             static_cast<int>(pointers.size()));
            } else if (value.is_object() && value.contains("bytes")) {
                const std::string bytes = fromBase64(value["bytes"].get<std::string>());
                error = bundle_add_byte(made.get(), key.c_str(), bytes.data(), bytes.size());
            } else {
                error = bundle_add_str(made.get(), key.c_str(), textFromJson(value).c_str());
            }
            expect(error == BUNDLE_ERROR_NONE, "an entry that a bundle can hold, not " + key);
        }
    } catch (const json::exception &) {
        throw std::invalid_argument(
            "expected texts, arrays of texts and {\"bytes\": BASE64} as entries");
    }
    return made;
}

std::vector<SessionEvent> readSession(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    std::vector<SessionEvent> events;
    EventReader reader;
    int number = 0;
    for (std::string line; std::getline(file, line) && !file.eof();) {
        try {
            const json read = json::parse(line, nullptr, false);
            if (++number > 1)
                events.push_back(reader.read(read));
            else
                expect(read.is_object() && read.value("nelvoSession", json()) == VERSION,
                       "{\"nelvoSession\": " + std::to_string(VERSION) +
                           "}, a session of a version "
                           "that is known");
        } catch (const std::invalid_argument &problem) {
            throw std::runtime_error(path + ":" + std::to_string(number) + ": " + problem.what());
        }
    }
    if (number == 0)
        throw std::runtime_error(
            path + (file.is_open() ? " holds no session"
                                   : std::string(" cannot be read: ") + std::strerror(errno)));
    return events;
}

SessionWriter::SessionWriter(const std::string &path)
    : _path(path), _file(std::fopen(path.c_str(), "we"), &std::fclose) {
    write({{"nelvoSession", VERSION}});
}

void SessionWriter::add(const SessionEvent &event) {
    json line = {{"seconds", event.seconds},
                 {"event", NAMES[static_cast<std::size_t>(event.kind)]},
                 {"connection", event.connection},
                 {"client", event.client}};
    if (!event.app.empty())
        line["app"] = event.app;
    if (!event.entries.is_null())
        line["entries"] = event.entries;
    write(line);
}

void SessionWriter::write(const json &line) {
    if (!_file ||
        std::fprintf(_file.get(), "%s\n",
                     line.dump(-1, ' ', false, json::error_handler_t::replace).c_str()) < 0 ||
        std::fflush(_file.get()) != 0)
        throw std::runtime_error(_path + " cannot be written: " + std::strerror(errno));
}

} // namespace nelvo::client
