// SPDX-License-Identifier: Apache-2.0
#include "replay.h"

#include <algorithm>
#include <set>
#include <stdexcept>

namespace nelvo::client {

namespace {

using nlohmann::json;
using Kind = EventKind;

constexpr double CONNECT_SECONDS = 5;
constexpr double LATE_SECONDS = 0.2; // for answers that should not come

std::string idOf(const json &entries) {
    return entries.is_object() ? entries.value("requestId", json()).dump() : "";
}

} // namespace

std::vector<std::string> Replay::play(const std::vector<SessionEvent> &events) {
    for (const std::string &pointer : _settings.ignored)
        try {
            static_cast<void>(json::json_pointer(pointer));
        } catch (const json::exception &) {
            throw std::invalid_argument("\"" + pointer + "\" is no JSON pointer, such as /result");
        }
    _start = _settings.now();
    for (const SessionEvent &event : events) {
        if (!event.app.empty() && event.app != _settings.appId)
            continue;
        if (_settings.speed > 0)
            pass(_start + event.seconds / _settings.speed - _settings.now());
        play(event);
    }
    pass(LATE_SECONDS);
    for (const auto &[number, connection] : _connections)
        for (const json &answer : connection->answers)
            differ("+ an answer to " + _requests[idOf(answer)] +
                   " that was not there: " + answer.dump());
    return std::move(_differences);
}

void Replay::pass(double seconds) {
    if (seconds > 0)
        _settings.wait(seconds, nullptr);
}

void Replay::play(const SessionEvent &event) {
    if (event.kind == Kind::CONNECTED)
        return connect(event);
    const auto found = _connections.find(event.connection);
    if (found == _connections.end())
        return; // another application's
    Connection &connection = *found->second;
    const std::string who =
        "connection " + std::to_string(event.connection) + ", " + event.client + ": ";
    if (event.kind == Kind::REQUEST) {
        const json &entries = event.entries;
        const json actionId =
            entries.is_object() ? entries.value("actionId", json("?")) : json("?");
        _requests[idOf(entries)] = "request " + std::to_string(++_count) + ", " +
                                   (actionId.is_string() ? actionId.get<std::string>() : "?");
        const BundlePtr content = toBundle(entries.is_object() ? entries : json::object());
        if (connection.proxy.send(content.get()) != RPC_PORT_ERROR_NONE)
            differ(who + "request " + std::to_string(_count) + " could not be sent");
        _settings.wait(0, nullptr);
    } else if (event.kind == Kind::REGISTERED && !connection.proxy.setCb().ok()) {
        differ(who + "its response callback was refused");
    } else if (event.kind == Kind::UNREGISTERED && !connection.proxy.unsetCb().ok()) {
        differ(who + "its response callback could not be removed");
    } else if (event.kind == Kind::ANSWER) {
        compare(event, connection);
    } else if (event.kind == Kind::GONE && !connection.hasEnded) {
        // What it gets in future would be another connection's, but answers so far are compared.
        auto answers = std::move(connection.answers);
        found->second = std::make_unique<Connection>();
        found->second->answers = std::move(answers);
    }
}

void Replay::connect(const SessionEvent &event) {
    auto &slot = _connections[event.connection] = std::make_unique<Connection>();
    Connection &connection = *slot;
    const auto wake = [this] {
        if (_settings.woken)
            _settings.woken();
    };
    connection.proxy.events.connected = [&connection, wake] {
        connection.isConnected = true, wake();
    };
    const auto end = [&connection, wake] { connection.hasEnded = true, wake(); };
    connection.proxy.events.rejected = end;
    connection.proxy.events.disconnected = end;
    connection.proxy.events.answered = [&connection, wake](const Answer &answer) {
        connection.answers.push_back(toJson(answer.response.content.get()));
        wake();
    };
    _settings.introduce(connection.proxy, event.client);
    const auto isDecided = [&] { return connection.isConnected || connection.hasEnded; };
    if (connection.proxy.connect(_settings.appId) != RPC_PORT_ERROR_NONE ||
        !_settings.wait(CONNECT_SECONDS, isDecided) || !connection.isConnected)
        differ("connection " + std::to_string(event.connection) + ", " + event.client +
               ": it was not accepted");
}

void Replay::compare(const SessionEvent &event, Connection &connection) {
    const std::string id = idOf(event.entries), name = _requests[id];
    const auto find = [&] {
        return std::find_if(connection.answers.begin(), connection.answers.end(),
                            [&](const json &answer) { return idOf(answer) == id; });
    };
    const double begin = _settings.now();
    if (find() == connection.answers.end()) {
        _settings.wait(_settings.patienceSeconds,
                       [&] { return find() != connection.answers.end() || connection.hasEnded; });
        _start += _settings.now() - begin;
    }
    const auto found = find();
    if (found == connection.answers.end())
        return differ("- the answer to " + name + ": " + event.entries.dump());
    const json wanted = comparable(event.entries), got = comparable(*found);
    connection.answers.erase(found);
    if (wanted == got)
        return;
    differ("the answer to " + name + ":");
    std::set<std::string> keys;
    for (const auto &[key, value] : wanted.items())
        keys.insert(key);
    for (const auto &[key, value] : got.items())
        keys.insert(key);
    for (const std::string &key : keys) {
        const bool isIn = wanted.contains(key), isOut = got.contains(key);
        if (isIn && isOut && wanted[key] == got[key])
            continue;
        if (isIn)
            differ("- " + key + ": " + wanted[key].dump());
        if (isOut)
            differ("+ " + key + ": " + got[key].dump());
    }
}

// Texts that are JSON as what they stand for, without what is ignored.
json Replay::comparable(json entries) const {
    for (auto &[key, value] : entries.items()) {
        const json read =
            value.is_string() ? json::parse(value.get<std::string>(), nullptr, false) : json();
        if (read.is_structured())
            value = read;
    }
    for (const std::string &text : _settings.ignored) {
        const json::json_pointer pointer(text);
        if (!entries.contains(pointer) || pointer.empty())
            continue;
        json &parent = entries[pointer.parent_pointer()];
        if (parent.is_object())
            parent.erase(pointer.back());
        else
            parent[pointer.back() == "-" ? 0 : std::stoul(pointer.back())] = nullptr;
    }
    return entries;
}

} // namespace nelvo::client
