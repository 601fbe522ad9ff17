// SPDX-License-Identifier: Apache-2.0
#include "recorder.h"

#include <algorithm>
#include <stdexcept>

#include <Ecore.h>

#include "cause.h"

namespace nelvoctl {

using nelvo::client::SessionEvent;
using Kind = nelvo::client::EventKind;

namespace {

nelvo::client::SessionWriter openWriter(const std::string &path) {
    try {
        return nelvo::client::SessionWriter(path);
    } catch (const std::runtime_error &error) {
        throw Failure(Cause::OUTPUT, error.what());
    }
}

} // namespace

Recorder::Recorder(const std::string &path) : _start(ecore_time_get()), _writer(openWriter(path)) {}

void Recorder::add(const TapEvent &event) {
    const auto [found, isNew] = _numbers.try_emplace(event.connection, _connections + 1);
    _connections += isNew ? 1 : 0;
    SessionEvent recorded{
        std::max(event.seconds - _start, 0.0), event.kind, found->second, event.client, "", {}};
    if (event.content)
        recorded.entries = nelvo::client::toJson(event.content.get());
    write(recorded);
}

int Recorder::connect(const std::string &app, const std::string &client) {
    _own[++_connections] = {app, client};
    add(_connections, Kind::CONNECTED);
    return _connections;
}

void Recorder::add(int connection, Kind kind, bundle *content) {
    const Connection &own = _own.at(connection);
    SessionEvent recorded{ecore_time_get() - _start, kind, connection, own.client, own.app, {}};
    if (content)
        recorded.entries = nelvo::client::toJson(content);
    write(recorded);
    if (kind == Kind::GONE)
        _own.erase(connection);
}

void Recorder::write(const SessionEvent &event) {
    try {
        _writer.add(event);
    } catch (const std::runtime_error &error) {
        throw Failure(Cause::OUTPUT, error.what());
    }
}

} // namespace nelvoctl
