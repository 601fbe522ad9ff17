// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "message_proxy.h"
#include "session.h"

namespace nelvo::client {

// Plays the clients of a session against an application, and compares what they get.
//
// Events keep their order: an answer is waited for, so that the next request overtakes nothing that it did
// not overtake when it was recorded. What is late moves the rest.
class Replay {
public:
    struct Settings {
        std::string appId;
        double speed = 1;            // 0: without the pauses
        double patienceSeconds = 35; // for what does not come in time
        // JSON pointers to what is not compared, such as "/appContext/position": they lead into an
        // answer's entries, and on into texts that are JSON.
        std::vector<std::string> ignored;
        // Runs the main loop until the condition holds, at most that long; returns whether it holds.
        std::function<bool(double seconds, const std::function<bool()> &until)> wait;
        std::function<double()> now;
        // Makes connections of this proxy those of that client; called before it connects.
        std::function<void(MessageProxy &proxy, const std::string &client)> introduce;
        std::function<void()> woken; // something has come that is waited for
    };

    explicit Replay(Settings settings) : _settings(std::move(settings)) {}

    // Returns the differences as lines: none if all is as it was. Throws std::invalid_argument if a pointer
    // is none.
    std::vector<std::string> play(const std::vector<SessionEvent> &events);

private:
    struct Connection {
        MessageProxy proxy;
        bool isConnected = false, hasEnded = false;
        std::vector<nlohmann::json> answers; // that nothing was compared with yet
    };

    void pass(double seconds);
    void play(const SessionEvent &event);
    void connect(const SessionEvent &event);
    void compare(const SessionEvent &event, Connection &connection);
    nlohmann::json comparable(nlohmann::json entries) const;
    void differ(const std::string &what) { _differences.push_back(what); }

    const Settings _settings;
    std::map<int, std::unique_ptr<Connection>> _connections;
    std::map<std::string, std::string> _requests; // what to call a request, by its id
    int _count = 0;                               // of requests
    double _start = 0;                            // moved by what was late
    std::vector<std::string> _differences;
};

} // namespace nelvo::client
