// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nelvo.h>
#include <nelvo/testkit.h>

namespace nelvo::testkit {

// Plays a script: what the application and two clients do, one letter a step; the table STEPS in
// play.cpp says what each letter means. Besides:
//
//   {...}                what the next callback does, steps that are played inside it
//   [2,1,1,0]            the client sends a parcel of these numbers, four bytes each
//   <actionId=s:play>    the client sends a request of these entries, see sendEntries()
//   (demo.client\0a)     the allow list becomes this text, "\0a" stands for a byte; (none): no file
//
// A model runs beside the script. Checked against the model, after every step: each return code, each
// callback with its moment and handler number, each answer, and what the library holds. While calls are
// made to fail, only what must hold in any case is checked: return codes are documented ones, and no
// request is answered twice or under an id that was never sent.
class Play {
public:
    enum class Check { MODEL, INVARIANTS };

    Play(Simulation &device, Check check);

    void play(const std::string &script);

    // Starts all over, faults gone: one request of each kind must be answered; then stops.
    void finishHealthily();

    // What was not as it must be; empty when all is well.
    const std::vector<std::string> &complaints() const { return _complaints; }

    static std::string letters(); // of all steps

private:
    enum class Kind { NONE, WAITING, ACTION, STATE };
    struct Step;
    static const Step STEPS[];
    static void (Play::*const BRACKETS[])(const std::string &);
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

    void step(char letter);
    void initialize();
    void deinitialize();
    void registerAction(const char *id, nelvo_action_execution_cb callback);
    void unsetAction(const char *id);
    void registerState(nelvo_app_state_request_cb callback);
    void unsetState();
    void registered(const std::string &id, bool isAdded, int result);
    void complete(const Called &request, bool asOther);
    void completeForeign();
    void askName(void *handler);
    void connect(bool registers);
    void unregister();
    void disconnect();
    void request(const char *actionId);
    void setDeed(const std::string &script);
    void sendParcel(const std::string &numbers);
    void sendEntries(const std::string &text);
    void setAllowList(const std::string &text);
    void pass(const char *note, double seconds);

    void called(Kind kind, void *handler, bundle *request);
    bool admits(int who);
    void expectBundle(bundle *content);
    void expectNoCallback(const std::string &what);
    void expectRequest(const std::string &actionId, std::uint64_t id);
    void settle();
    void answer(const char *status);
    void expect(const std::string &what, int real, int wanted);
    void compareAnswers();
    void complain(const std::string &what);
    bool checksModel() const { return _check == Check::MODEL; }
    Client &client() { return _clients[_who]; }

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
    int _who = 0; // the client of the next step
    int _depth = 0;

    // The application's memory of the latest callback and the one before.
    Called _latest;
    Called _former;

    // The model.
    bool _initialized = false;
    bool _everRequested = false;
    std::set<std::string> _registered;                  // action ids
    std::optional<std::vector<std::string>> _allowList; // its lines; no file unless set
    std::vector<std::string> _lists[2];                 // what each connection has read
    int _uses[2] = {0, 0}; // how often the response callback of each client may be called
    Kind _pending = Kind::NONE;
    std::uint64_t _pendingId = 0;
    std::string _pendingAction;
    double _since = 0;
    double _registeredAt = 0; // the latest registration of an action
    int _number = 1;
    std::optional<int> _recorded; // the handler whose record is kept
    bool _callExpected = false;
};

} // namespace nelvo::testkit
