// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "envelope.h"

namespace nelvo::client {

// What passes between a client and an application.
enum class EventKind { CONNECTED, REGISTERED, UNREGISTERED, REQUEST, ANSWER, GONE };

// One event of a recorded session.
struct SessionEvent {
    double seconds = 0; // since the start
    EventKind kind = EventKind::GONE;
    int connection = 0;
    std::string client;     // its id
    std::string app;        // which application; empty: the session has only one
    nlohmann::json entries; // of a request or an answer
};

// The entries of a bundle by their keys: a text, an array of texts, or {"bytes": BASE64}; a text that is
// not UTF-8 is {"text": BASE64}.
nlohmann::json toJson(bundle *content);
// The other way round. Throws std::invalid_argument.
BundlePtr toBundle(const nlohmann::json &entries);

// Reads a session: JSON lines, of which the first names the version. A last line that is not complete is
// left out. Throws std::runtime_error, with the line and what was expected.
std::vector<SessionEvent> readSession(const std::string &path);

// Writes a session, so that each event is in the file when add() returns.
class SessionWriter {
public:
    // Throws std::runtime_error; so does add().
    explicit SessionWriter(const std::string &path);
    void add(const SessionEvent &event);

private:
    void write(const nlohmann::json &line);

    const std::string _path;
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> _file;
};

} // namespace nelvo::client
