// SPDX-License-Identifier: Apache-2.0
#include "play.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <sstream>
#include <utility>

#include <host/sim.h>
#include <nelvo.h>

#include "client/envelope.h"
#include "client_wire.h"
#include "fault_scope.h"
#include "platform_faults.h"

namespace nelvo::testkit {
namespace {

constexpr double TICK = 0.02;
constexpr double WAIT_SECONDS = 6 * TICK;
constexpr double WATCH_SECONDS = 30;
constexpr double ROUNDING = 1e-6;
constexpr const char *CLIENT_IDS[] = {"demo.client", "other.client"};
constexpr const char *STATE = "getAppContext";
constexpr int ALWAYS = INT_MAX;
constexpr const char *SUCCESS = "ACTION_EXECUTION_SUCCESS";
constexpr const char *FAILURE = "ACTION_EXECUTION_FAILURE";
const std::string OPENING = "{[<(", CLOSING = "}]>)"; // in the order of BRACKETS
const std::map<int, std::string> CODES = {{NELVO_ERROR_NONE, "NONE"},
                                          {NELVO_ERROR_OUT_OF_MEMORY, "OUT_OF_MEMORY"},
                                          {NELVO_ERROR_INVALID_PARAMETER, "INVALID_PARAMETER"},
                                          {NELVO_ERROR_NOT_SUPPORTED, "NOT_SUPPORTED"},
                                          {NELVO_ERROR_OPERATION_FAILED, "OPERATION_FAILED"}};

// Calls the library, whose allocations may fail while the test kit's may not.
template <typename Function, typename... Arguments>
int library(Function function, Arguments... arguments) {
    const FaultScope scope(true);
    return function(arguments...);
}

// What a request holds besides the ids.
void showEntry(const char *key, const int, const bundle_keyval_t *entry, void *shown) {
    void *value = nullptr;
    std::size_t size = 0;
    bundle_keyval_get_basic_val(const_cast<bundle_keyval_t *>(entry), &value, &size);
    if (key != std::string("actionId") && key != std::string("requestId"))
        *static_cast<std::string *>(shown) +=
            " " + std::string(key) + "=" + std::string(static_cast<char *>(value), size).c_str();
}

std::string describe(const Answer &answer) {
    std::string text = answer.sender + " " + std::to_string(answer.requestId.value_or(0));
    for (const auto &[key, value] : answer.fields)
        text += " " + key + "=" + value;
    return text;
}

} // namespace

struct Play::Step {
    char letter;
    const char *meaning;
    void (*play)(Play &);
};

const Play::Step Play::STEPS[] = {
    {'I', "initialize", [](Play &play) { play.initialize(); }},
    {'D', "deinitialize", [](Play &play) { play.deinitialize(); }},
    {'A', "register the action play", [](Play &play) { play.registerAction("play", actionCb); }},
    {'a', "unset it", [](Play &play) { play.unsetAction("play"); }},
    {'N', "register null for it", [](Play &play) { play.registerAction("play", nullptr); }},
    {'L', "register the action late", [](Play &play) { play.registerAction("late", actionCb); }},
    {'l', "unset it", [](Play &play) { play.unsetAction("late"); }},
    {'S', "register for the state", [](Play &play) { play.registerState(stateCb); }},
    {'n', "register null for it", [](Play &play) { play.registerState(nullptr); }},
    {'s', "unset it", [](Play &play) { play.unsetState(); }},
    {'F', "complete the latest request", [](Play &play) { play.complete(play._latest, false); }},
    {'O', "complete the one before it", [](Play &play) { play.complete(play._former, false); }},
    {'P', "complete the latest as one of the other kind",
     [](Play &play) { play.complete(play._latest, true); }},
    {'G', "ask for the name of the latest", [](Play &play) { play.askName(play._latest.handler); }},
    {'g', "ask for the name of the one before",
     [](Play &play) { play.askName(play._former.handler); }},
    {'2', "the next step is the second client's", [](Play &play) { play._who = 1; }},
    {'C', "connect", [](Play &play) { play.connect(false); }},
    {'J', "connect and register the response callback", [](Play &play) { play.connect(true); }},
    {'K', "UnsetCB", [](Play &play) { play.unregister(); }},
    {'X', "disconnect", [](Play &play) { play.disconnect(); }},
    {'R', "request play", [](Play &play) { play.request("play"); }},
    {'W', "request late", [](Play &play) { play.request("late"); }},
    {'T', "request the state", [](Play &play) { play.request(STATE); }},
    {'H', "complete what is no handler", [](Play &play) { play.completeForeign(); }},
    {'.', "0.02 s pass", [](Play &play) { play.pass("... 0.02 s", TICK); }},
    {'-', "0.2 s pass", [](Play &play) { play.pass("... 0.2 s", 0.2); }},
    {'_', "31 s pass", [](Play &play) { play.pass("... 31 s", 31); }},
};

void (Play::*const Play::BRACKETS[])(const std::string &) = {
    &Play::setDeed, &Play::sendParcel, &Play::sendEntries, &Play::setAllowList};

std::string Play::letters() {
    std::string letters;
    for (const Step &step : STEPS)
        letters += step.letter;
    return letters;
}

Play::Play(Simulation &device, Check check)
    : _device(device), _check(check), _clients{Client(CLIENT_IDS[0]), Client(CLIENT_IDS[1])} {}

void Play::play(const std::string &script) {
    const FaultScope scope(false);
    for (std::size_t i = 0; i < script.size(); ++i) {
        const std::size_t kind = OPENING.find(script[i]);
        const bool isBracket = kind != OPENING.npos, isDeed = script[i] == '{';
        const std::size_t end =
            isBracket ? std::min(script.find(CLOSING[kind], i), script.size()) : i;
        _script += script.substr(i, end - i + 1);
        if (isBracket)
            (this->*BRACKETS[kind])(script.substr(i + 1, end - i - 1));
        else
            step(script[i]);
        if (_depth == 0 && !isDeed) {
            _device.advance(0);
            compareAnswers();
        }
        i = end;
    }
}

void Play::step(char letter) {
    if (letter == ' ')
        return;
    const auto step = std::find_if(std::begin(STEPS), std::end(STEPS),
                                   [&](const Step &each) { return each.letter == letter; });
    if (step == std::end(STEPS))
        return complain("there is no step of that letter");
    step->play(*this);
    if (letter != '2')
        _who = 0;
}

void Play::initialize() {
    expect("initialize", library(nelvo_initialize), NELVO_ERROR_NONE);
    if (!_initialized)
        _number = 1;
    _initialized = true;
}

void Play::deinitialize() {
    expect("deinitialize", library(nelvo_deinitialize), NELVO_ERROR_NONE);
    if (!_initialized)
        return;
    _initialized = false;
    _registered.clear();
    _pending = Kind::NONE;
    _recorded.reset();
    _uses[0] = _uses[1] = 0;
    _device.advance(0); // the clients hear of it
}

void Play::registerAction(const char *id, nelvo_action_execution_cb callback) {
    const int result =
        library(nelvo_set_action_execution_cb, id, callback, callback ? this : nullptr);
    registered(id, callback != nullptr, result);
}

void Play::unsetAction(const char *id) {
    registered(id, false, library(nelvo_unset_action_execution_cb, id));
}

void Play::registerState(nelvo_app_state_request_cb callback) {
    const int result = library(nelvo_set_app_state_request_cb, callback, callback ? this : nullptr);
    registered(STATE, callback != nullptr, result);
}

void Play::unsetState() {
    registered(STATE, false, library(nelvo_unset_app_state_request_cb));
}

void Play::registered(const std::string &id, bool isAdded, int result) {
    expect(id == STATE ? "state" : id, result,
           _initialized ? NELVO_ERROR_NONE : NELVO_ERROR_OPERATION_FAILED);
    if (!_initialized)
        return;
    if (isAdded)
        _registered.insert(id);
    else
        _registered.erase(id);
    _registeredAt = host_sim_now();
}

void Play::connect(bool registers) {
    const int who = _who;
    if (_clients[who].connected())
        _uses[who] = 0;
    _lists[who].clear();
    expect("connect", _clients[who].connect() ? 1 : 0, _initialized ? 1 : 0);
    if (!registers || !_clients[who].connected())
        return;
    const bool isAdmitted = admits(who);
    expect("SetCB", _clients[who].setCb(), isAdmitted ? 0 : -1);
    if (isAdmitted)
        _uses[who] = ALWAYS;
}

void Play::unregister() {
    const int who = _who;
    if (!client().connected())
        return;
    const bool isAdmitted = admits(who);
    expect("UnsetCB", client().unsetCb(), isAdmitted ? 0 : -1);
    if (isAdmitted)
        _uses[who] = 0;
}

void Play::disconnect() {
    const int who = _who;
    client().disconnect();
    _uses[who] = 0;
}

void Play::setDeed(const std::string &script) {
    _inside = script;
}

void Play::setAllowList(const std::string &text) {
    _allowList.reset();
    _device.removeAllowList();
    if (text == "none")
        return;
    std::string content;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool isByte = text[i] == '\\';
        content +=
            isByte ? static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)) : text[i];
        i += isByte ? 2 : 0;
    }
    _device.setAllowList(content);
    _allowList.emplace();
    std::istringstream lines(content);
    for (std::string line; std::getline(lines, line);)
        _allowList->push_back(line);
}

// A connection reads the list until there is a line in it, and keeps to that.
bool Play::admits(int who) {
    std::vector<std::string> &list = _lists[who];
    if (list.empty() && !_allowList)
        return true;
    if (list.empty())
        list = *_allowList;
    return std::find(list.begin(), list.end(), CLIENT_IDS[who]) != list.end();
}

void Play::request(const char *actionId) {
    if (!client().connected())
        return;
    const std::uint64_t id = _nextId++;
    Client &from = client();
    if (admits(_who))
        expectRequest(actionId, id);
    from.request(actionId, id);
    expectNoCallback(actionId);
}

// An entry is KEY=KIND:VALUE, its kind s(tring), b(ytes) or a(rray of one string).
void Play::sendEntries(const std::string &text) {
    const client::BundlePtr content(bundle_create());
    std::istringstream entries(text);
    for (std::string entry; std::getline(entries, entry, ',');) {
        const std::string key = entry.substr(0, entry.find('='));
        const std::string value = entry.substr(std::min(entry.size(), key.size() + 3));
        const char *array[] = {value.c_str()};
        const char kind = entry[std::min(entry.size(), key.size() + 1)];
        kind == 'b'   ? bundle_add_byte(content.get(), key.c_str(), value.data(), value.size())
        : kind == 'a' ? bundle_add_str_array(content.get(), key.c_str(), array, 1)
                      : bundle_add_str(content.get(), key.c_str(), value.c_str());
    }
    Client &from = client();
    if (!from.connected())
        return;
    expectBundle(content.get());
    _who = 0;
    from.send(content.get());
    expectNoCallback("entries");
}

void Play::expectNoCallback(const std::string &what) {
    if (checksModel() && _callExpected)
        complain("no callback for " + what);
    _callExpected = false;
}

// The library gets a bundle from the client of this step.
void Play::expectBundle(bundle *content) {
    char *actionId = nullptr;
    void *bytes = nullptr;
    std::size_t size = 0;
    std::uint64_t id = 0;
    const int error = bundle_get_byte(content, "requestId", &bytes, &size);
    const bool hasId = error == BUNDLE_ERROR_NONE && size == sizeof id;
    if (hasId)
        std::memcpy(&id, bytes, size);
    if (bundle_get_str(content, "actionId", &actionId) == BUNDLE_ERROR_NONE &&
        (hasId || error == BUNDLE_ERROR_KEY_NOT_AVAILABLE) && admits(_who))
        expectRequest(actionId, id);
}

// The library gets a request from the client of this step.
void Play::expectRequest(const std::string &actionId, std::uint64_t id) {
    _sent[id] = {_who, ""};
    _answered.erase(
        id); // of an earlier request with that id, which is overtaken if it was not answered
    _recorded.reset();
    _everRequested = true;
    _pendingId = id;
    _pendingAction = actionId;
    _since = host_sim_now();
    const Kind kind = actionId == STATE ? Kind::STATE : Kind::ACTION;
    _callExpected = _registered.count(actionId) != 0;
    _pending = _callExpected ? kind : kind == Kind::ACTION ? Kind::WAITING : Kind::NONE;
    if (kind == Kind::STATE && !_callExpected)
        answer(FAILURE);
}

// What a parcel means is told by the platform, which reads a copy of it.
void Play::sendParcel(const std::string &numbers) {
    Client &from = client();
    const int who = _who;
    _who = 0;
    if (!from.connected())
        return;
    const auto write = [&](rpc_port_parcel_h parcel) {
        const char *at = numbers.c_str();
        for (char *end = nullptr; *at; at = *end ? end + 1 : end)
            rpc_port_parcel_write_int32(parcel, static_cast<int>(std::strtol(at, &end, 10)));
    };
    rpc_port_parcel_h copy = nullptr;
    rpc_port_parcel_create(&copy);
    write(copy);
    int method = -1, field = 0;
    bool once = false, isAdmitted = true;
    if (rpc_port_parcel_read_int32(copy, &method) != RPC_PORT_ERROR_NONE)
        method = -1;
    if (method == 4) {
        bundle *content = nullptr;
        if (rpc_port_parcel_read_bundle(copy, &content) != RPC_PORT_ERROR_NONE)
            content = nullptr;
        const client::BundlePtr owner(content);
        _who = who;
        expectBundle(content);
        _who = 0;
    } else if (method == 2 || method == 3) {
        isAdmitted = admits(who);
        rpc_port_parcel_read_int32(copy, &field);
        rpc_port_parcel_read_int32(copy, &field);
        if (rpc_port_parcel_read_bool(copy, &once) != RPC_PORT_ERROR_NONE)
            once = false;
    }
    rpc_port_parcel_destroy(copy);
    testkit::sendParcel(from, write);
    expectNoCallback("a parcel");
    if (method != 4 && isAdmitted)
        _uses[who] = method != 2 ? 0 : once ? 1 : ALWAYS;
    if (checksModel() && method != 4 && from.connected() != (method == 2 || method == 3))
        complain("the connection after a parcel");
}

void Play::pass(const char *note, double seconds) {
    _device.note(note);
    _device.advance(seconds);
    settle();
}

void Play::actionCb(void *handler, bundle *request, void *data) {
    auto *self = static_cast<Play *>(data);
    self->called(Kind::ACTION, handler, request);
    const FaultScope scope(false);
    char *actionId = nullptr;
    if (bundle_get_str(request, "actionId", &actionId) != BUNDLE_ERROR_NONE)
        self->complain("the request did not outlive its callback");
}

void Play::stateCb(void *handler, void *data) {
    static_cast<Play *>(data)->called(Kind::STATE, handler, nullptr);
}

// The application is called: at once, or on a tick of the wait for the registration.
void Play::called(Kind kind, void *handler, bundle *request) {
    const FaultScope scope(false);
    _former = std::exchange(_latest, {handler, kind});
    const int number = *static_cast<int *>(handler);
    std::string shown = (kind == Kind::STATE ? "* state " : "* action ") + std::to_string(number);
    bundle_foreach(request, showEntry, &shown);
    _device.note(shown);
    if (checksModel()) {
        const double now = host_sim_now();
        if (_pending == Kind::WAITING && !_callExpected) {
            const double elapsed = std::max(_registeredAt, _since) - _since;
            const double tick = (std::floor(elapsed / TICK + ROUNDING) + 1) * TICK;
            if (_registered.count(_pendingAction) == 0 ||
                std::abs(now - _since - tick) > ROUNDING || tick > 5 * TICK + ROUNDING)
                complain("callback at " + std::to_string(now - _since) + " s of the wait");
            _pending = Kind::ACTION;
        } else if (!_callExpected || _pending != kind) {
            complain("unexpected callback");
        }
        _callExpected = false;
        _since = now;
        _number = (_number + 1) % 100;
        _recorded = _number;
        if (number != _number)
            complain("handler " + std::to_string(number) + ", not " + std::to_string(_number));
    }
    if (_inside.empty() || _depth > 1)
        return;
    const std::string script = std::move(_inside);
    _inside.clear();
    ++_depth;
    play(script);
    --_depth;
}

// Brings the model up to the present.
void Play::settle() {
    const double elapsed = host_sim_now() - _since + ROUNDING;
    if (_pending == Kind::WAITING && elapsed >= WAIT_SECONDS) {
        if (checksModel() && _registered.count(_pendingAction) != 0 &&
            _registeredAt - _since < 5 * TICK - ROUNDING)
            complain("no callback after the wait");
        _pending = Kind::NONE;
        answer(FAILURE);
    } else if ((_pending == Kind::ACTION || _pending == Kind::STATE) && elapsed >= WATCH_SECONDS) {
        _pending = Kind::NONE;
        _recorded.reset();
        answer(FAILURE);
    }
}

// The library answers the latest request, if its client can be reached.
void Play::answer(const char *status) {
    Sent &sent = _sent[_pendingId];
    if (_uses[sent.client] == 0)
        return;
    sent.expected = status;
    if (_uses[sent.client] != ALWAYS)
        --_uses[sent.client];
}

void Play::complete(const Called &request, bool asOther) {
    void *const handler = request.handler;
    const bool isState = (request.kind == Kind::STATE) != asOther;
    const Kind as = isState ? Kind::STATE : Kind::ACTION;
    if (!handler)
        return;
    int wanted = NELVO_ERROR_NONE;
    if (!_initialized || !_everRequested) {
        wanted = NELVO_ERROR_OPERATION_FAILED;
    } else if (_recorded == *static_cast<int *>(handler)) {
        if (_pending != as) {
            wanted = NELVO_ERROR_OPERATION_FAILED;
        } else {
            _pending = Kind::NONE;
            if (!isState) {
                _recorded.reset();
                if (_uses[_sent[_pendingId].client] == 0)
                    wanted = NELVO_ERROR_OPERATION_FAILED;
            }
            answer(SUCCESS);
        }
    }
    expect("complete",
           isState ? library(nelvo_complete_app_state_request, handler, "{}")
                   : library(nelvo_complete_action_execution, handler, "done"),
           wanted);
}

void Play::completeForeign() {
    auto *number = static_cast<int *>(_latest.handler);
    int foreign = 2;
    if (!number)
        return;
    void *const pointers[] = {nullptr,
                              &foreign,
                              number - *number - 1,
                              number - *number + 100,
                              reinterpret_cast<void *>(8),
                              reinterpret_cast<char *>(number) + 1};
    for (void *pointer : pointers) {
        char *name = nullptr;
        const int wanted = _initialized && _everRequested ? NELVO_ERROR_INVALID_PARAMETER
                                                          : NELVO_ERROR_OPERATION_FAILED;
        expect("complete", library(nelvo_complete_action_execution, pointer, "x"), wanted);
        expect("complete", library(nelvo_complete_app_state_request, pointer, "x"), wanted);
        expect("get_action_name", library(nelvo_get_action_name, pointer, &name),
               NELVO_ERROR_OPERATION_FAILED);
    }
}

void Play::askName(void *handler) {
    char *name = nullptr;
    if (!handler)
        return;
    const bool known = _recorded == *static_cast<int *>(handler);
    expect("get_action_name", library(nelvo_get_action_name, handler, &name),
           known ? NELVO_ERROR_NONE : NELVO_ERROR_OPERATION_FAILED);
    if (checksModel() && known && (!name || _pendingAction != name))
        complain("wrong name");
    std::free(name);
}

void Play::expect(const std::string &what, int real, int wanted) {
    const bool isNumber = what == "connect" || what == "SetCB" || what == "UnsetCB";
    const auto code = CODES.find(real);
    const bool isCode = !isNumber && code != CODES.end();
    _device.note("= " + what + " " + (isCode ? code->second : std::to_string(real)));
    if (checksModel() ? real != wanted : !isNumber && !isCode)
        complain(what + " gave " + std::to_string(real) + ", not " + std::to_string(wanted));
}

void Play::compareAnswers() {
    for (int i = 0; i < 2; ++i) {
        const auto &answers = _clients[i].answers;
        for (; _seen[i] < answers.size(); ++_seen[i]) {
            const Answer &response = answers[_seen[i]];
            const std::uint64_t id = response.requestId.value_or(0);
            _device.note("< " + describe(answers[_seen[i]]));
            const auto sent = _sent.find(id);
            if (sent == _sent.end() || sent->second.client != i)
                complain("answer to a request that was not sent: " + std::to_string(id));
            else if (!_answered.insert(id).second)
                complain("second answer to " + std::to_string(id));
            else if (checksModel() && sent->second.expected != response.field("status_code"))
                complain("answer " + response.field("status_code") + ", not \"" +
                         sent->second.expected + "\"");
        }
    }
    if (!checksModel())
        return;
    const std::string held = std::string(_pending == Kind::WAITING ? "1" : "0") +
                             " bundles, 0 parcels, " + (_initialized ? "1" : "0") +
                             " stubs, 0 app infos, " + (_pending == Kind::NONE ? "0" : "1") +
                             " timers";
    if (liveHandles() != held)
        complain("held: " + liveHandles() + ", not " + held);
    for (const auto &[id, sent] : _sent)
        if (!sent.expected.empty() && _answered.count(id) == 0)
            complain("no answer to " + std::to_string(id));
}

void Play::finishHealthily() {
    _inside.clear();
    setAllowList("none");
    _who = 0;
    const std::size_t before = _answered.size();
    play("DX2XIJAS{F}R{F}T");
    if (_answered.size() != before + 2)
        complain("not healthy afterwards");
    play("DX2X");
}

void Play::complain(const std::string &what) {
    _complaints.push_back(_script + ": " + what);
}

} // namespace nelvo::testkit
