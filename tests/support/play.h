// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nelvo/testkit.h>

namespace nelvo::testkit {

// Plays a script: what the application and two clients do, one character a step.
//
//   I D     initialize, deinitialize
//   A a N   register "play", unset it, register a null callback for it
//   S s     register for the state, unset
//   L l     register "late", unset it
//   F G     complete the latest request, ask for its name
//   O P     complete the one before it; the latest, but as one of the other kind
//   C J     connect the client; connect and register its response callback
//   K X     UnsetCB; disconnect
//   R T W   request "play", the state, "late"
//   B       a malformed request
//   2       the next step is the second client's
//   . - _   0.02 s, 0.2 s, 31 s pass
//   {...}   what the next callback does; steps inside it are played there
//
// Beside it runs a model of what must come of that. Checked against it, after every step: each
// return code, each callback with its moment and handler number, each answer. With faults about, the
// model is of no use; then only what must hold whatever fails is checked: return codes are documented
// ones, nobody is answered twice, or with an id that was never sent.
class Play {
public:
    enum class Check { MODEL, INVARIANTS };

    Play(Simulation &device, Check check);
    ~Play();

    void play(const std::string &script);

    // Starts all over, faults gone: one request of each kind must be answered; then stops.
    void finishHealthily();

    // What was not as it must be; empty when all is well.
    const std::vector<std::string> &complaints() const { return _complaints; }

    // How many requests have been sent and how many of them were answered, for a sweep to compare.
    int sent() const { return static_cast<int>(_sent.size()); }
    int answered() const { return static_cast<int>(_answered.size()); }

private:
    enum class Kind { NONE, WAITING, ACTION, STATE };
    struct Called {
        void *handler = nullptr; // null: the application has not been called so often
        Kind kind = Kind::NONE;
    };
    struct Sent {
        int client;
        std::string expected; // the status that the model expects; empty: no answer
    };

    static void actionCb(void *handler, bundle *request, void *data);
    static void stateCb(void *handler, void *data);

    void step(char code);
    void called(Kind kind, void *handler);
    void request(const char *actionId, Kind kind);
    void settle();
    void answer(const char *status);
    void complete(const Called &request, Kind as);
    void askName();
    void malformed();
    void join(bool register_);
    void stop();
    void expect(const std::string &what, int real, int wanted);
    void compareAnswers();
    void complain(const std::string &what);
    bool checksModel() const { return _check == Check::MODEL; }

    Simulation &_device;
    Check _check;
    Client _clients[2];
    std::vector<std::string> _complaints;
    std::string _script; // played so far
    std::string _inside; // for the next callback
    std::map<std::uint64_t, Sent> _sent;
    std::set<std::uint64_t> _answered;
    std::size_t _seen[2] = {0, 0}; // answers of each client that have been looked at
    std::uint64_t _nextId = 1;
    int _who = 0;
    int _depth = 0;

    // The application's memory of the latest callback and the one before.
    Called _latest;
    Called _former;

    // The model.
    bool _initialized = false;
    bool _everRequested = false;
    std::set<std::string> _registered;   // "play", "late", "state"
    bool _reachable[2] = {false, false}; // a callback of a living connection is stored
    Kind _pending = Kind::NONE;
    std::uint64_t _pendingId = 0;
    std::string _pendingAction;
    double _since = 0;
    double _registeredAt = 0; // of "late" and "play", the later one
    int _number = 1;
    std::optional<int> _recorded; // the handler whose record is kept
    bool _callExpected = false;
};

} // namespace nelvo::testkit
