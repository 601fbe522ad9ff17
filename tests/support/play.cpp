// SPDX-License-Identifier: Apache-2.0
#include "play.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <utility>

#include <host/sim.h>
#include <nelvo.h>

#include "client/envelope.h"
#include "fault_scope.h"
#include "platform_faults.h"

namespace nelvo::testkit {
namespace {

constexpr double TICK = 0.02;
constexpr double WAIT_SECONDS = 6 * TICK;
constexpr double WATCH_SECONDS = 30;
constexpr double ROUNDING = 1e-6;
constexpr const char *SUCCESS = "ACTION_EXECUTION_SUCCESS";
constexpr const char *FAILURE = "ACTION_EXECUTION_FAILURE";
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

std::string describe(const Answer &answer) {
    std::string text = answer.sender + " " + std::to_string(answer.requestId.value_or(0));
    for (const auto &[key, value] : answer.fields)
        text += " " + key + "=" + value;
    return text;
}

} // namespace

Play::Play(Simulation &device, Check check)
    : _device(device), _check(check), _clients{Client("demo.client"), Client("other.client")} {}

Play::~Play() = default;

void Play::play(const std::string &script) {
    const FaultScope scope(false);
    for (std::size_t i = 0; i < script.size(); ++i) {
        _script += script[i];
        if (script[i] == '{') {
            const std::size_t end = std::min(script.find('}', i), script.size());
            _inside = script.substr(i + 1, end - i - 1);
            _script += _inside + "}";
            i = end;
            continue;
        }
        step(script[i]);
        if (_depth == 0) {
            _device.advance(0);
            compareAnswers();
        }
    }
}

void Play::step(char code) {
    const int ok = _initialized ? NELVO_ERROR_NONE : NELVO_ERROR_OPERATION_FAILED;
    const auto change = [&](const char *name, bool add, int result) {
        expect(name, result, ok);
        if (!_initialized)
            return;
        if (add)
            _registered.insert(name);
        else
            _registered.erase(name);
        _registeredAt = host_sim_now();
    };
    const int client = _who;
    if (code != '2')
        _who = 0;
    switch (code) {
    case '2':
        _who = 1;
        break;
    case 'I': {
        expect("initialize", library(nelvo_initialize), NELVO_ERROR_NONE);
        if (!_initialized)
            _number = 1;
        _initialized = true;
        break;
    }
    case 'D':
        stop();
        break;
    case 'A':
        change("play", true, library(nelvo_set_action_execution_cb, "play", actionCb, this));
        break;
    case 'a':
        change("play", false, library(nelvo_unset_action_execution_cb, "play"));
        break;
    case 'N':
        change("play", false, library(nelvo_set_action_execution_cb, "play", nullptr, nullptr));
        break;
    case 'L':
        change("late", true, library(nelvo_set_action_execution_cb, "late", actionCb, this));
        break;
    case 'l':
        change("late", false, library(nelvo_unset_action_execution_cb, "late"));
        break;
    case 'S':
        change("state", true, library(nelvo_set_app_state_request_cb, stateCb, this));
        break;
    case 's':
        change("state", false, library(nelvo_unset_app_state_request_cb));
        break;
    case 'F':
        complete(_latest, _latest.kind);
        break;
    case 'O':
        complete(_former, _former.kind);
        break;
    case 'P':
        complete(_latest, _latest.kind == Kind::STATE ? Kind::ACTION : Kind::STATE);
        break;
    case 'G':
        askName();
        break;
    case 'C':
    case 'J':
        _who = client;
        join(code == 'J');
        break;
    case 'K':
        if (_clients[client].connected()) {
            expect("UnsetCB", _clients[client].unsetCb(), 0);
            _reachable[client] = false;
        }
        break;
    case 'X':
        _clients[client].disconnect();
        _reachable[client] = false;
        break;
    case 'R':
    case 'W':
    case 'T':
    case 'B':
        _who = client;
        if (!_clients[client].connected())
            break;
        if (code == 'B')
            malformed();
        else
            request(code == 'R'   ? "play"
                    : code == 'W' ? "late"
                                  : "getAppContext",
                    code == 'T' ? Kind::STATE : Kind::ACTION);
        break;
    default:
        _device.note(code == '.' ? "... 0.02 s" : code == '-' ? "... 0.2 s" : "... 31 s");
        _device.advance(code == '.' ? TICK : code == '-' ? 0.2 : code == '_' ? 31 : 0);
        settle();
    }
    if (code != '2')
        _who = 0;
}

void Play::join(bool register_) {
    Client &client = _clients[_who];
    const int who = _who;
    if (checksModel() && client.connected())
        _reachable[who] = false;
    expect("connect", client.connect() ? 1 : 0, _initialized ? 1 : 0);
    if (!register_ || !client.connected())
        return;
    expect("SetCB", client.setCb(), 0);
    _reachable[who] = true;
}

void Play::stop() {
    expect("deinitialize", library(nelvo_deinitialize), NELVO_ERROR_NONE);
    if (!_initialized)
        return;
    _initialized = false;
    _registered.clear();
    _pending = Kind::NONE;
    _recorded.reset();
    _reachable[0] = _reachable[1] = false;
    _device.advance(0); // the clients hear of it
}

void Play::malformed() {
    const client::BundlePtr request(bundle_create());
    bundle_add_byte(request.get(), "requestId", "1234567", 7);
    bundle_add_str(request.get(), "actionId", "play");
    _clients[_who].send(request.get());
}

void Play::request(const char *actionId, Kind kind) {
    const std::uint64_t id = _nextId++;
    const int who = _who;
    _sent[id] = {who, ""};
    _recorded.reset();
    _everRequested = true;
    _pendingId = id;
    _pendingAction = actionId;
    _since = host_sim_now();
    const std::string name = kind == Kind::STATE ? "state" : actionId;
    _callExpected = _registered.count(name) != 0;
    _pending = _callExpected ? kind : kind == Kind::ACTION ? Kind::WAITING : Kind::NONE;
    if (kind == Kind::STATE && !_callExpected)
        answer(FAILURE);
    _clients[who].request(actionId, id);
    if (checksModel() && _callExpected)
        complain("no callback for " + name);
    _callExpected = false;
}

void Play::actionCb(void *handler, bundle *request, void *data) {
    auto *self = static_cast<Play *>(data);
    self->called(Kind::ACTION, handler);
    const FaultScope scope(false);
    char *actionId = nullptr;
    if (bundle_get_str(request, "actionId", &actionId) != BUNDLE_ERROR_NONE)
        self->complain("the request did not outlive its callback");
}

void Play::stateCb(void *handler, void *data) {
    static_cast<Play *>(data)->called(Kind::STATE, handler);
}

// The application is called: at once, or on a tick of the wait for the registration.
void Play::called(Kind kind, void *handler) {
    const FaultScope scope(false);
    _former = std::exchange(_latest, {handler, kind});
    const int number = *static_cast<int *>(handler);
    _device.note((kind == Kind::STATE ? "* state " : "* action ") + std::to_string(number));
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
    if (_reachable[sent.client])
        sent.expected = status;
}

void Play::complete(const Called &request, Kind as) {
    void *const handler = request.handler;
    const bool isState = as == Kind::STATE;
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
            answer(SUCCESS);
            if (!isState) {
                _recorded.reset();
                if (!_reachable[_sent[_pendingId].client])
                    wanted = NELVO_ERROR_OPERATION_FAILED;
            }
        }
    }
    expect("complete",
           isState ? library(nelvo_complete_app_state_request, handler, "{}")
                   : library(nelvo_complete_action_execution, handler, "done"),
           wanted);
}

void Play::askName() {
    char *name = nullptr;
    if (!_latest.handler)
        return;
    const bool known = _recorded == *static_cast<int *>(_latest.handler);
    expect("get_action_name", library(nelvo_get_action_name, _latest.handler, &name),
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
