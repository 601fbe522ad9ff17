// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>

#include "client/session.h"
#include "tap_reader.h"

namespace nelvoctl {

// Writes what clients send and get to a file. Throws Failure if the file cannot be written.
class Recorder {
public:
    explicit Recorder(const std::string &path);

    // What passed between an application and its clients, at that time.
    void add(const TapEvent &event);
    // What this process did as a client of that application. The connection is a number that connect() gave.
    int connect(const std::string &app, const std::string &client);
    void add(int connection, nelvo::client::EventKind kind, bundle *content = nullptr);

private:
    struct Connection {
        std::string app, client;
    };

    void write(const nelvo::client::SessionEvent &event);

    const double _start;
    nelvo::client::SessionWriter _writer;
    std::map<std::string, int> _numbers; // of tapped connections
    std::map<int, Connection> _own;
    int _connections = 0; // so far
};

} // namespace nelvoctl
