// SPDX-License-Identifier: Apache-2.0
#include "exchange.h"

#include <cstdio>
#include <utility>

#include <Ecore.h>

#include "client/message_proxy.h"

namespace nelvoctl {

namespace {

using nelvo::client::Answer;
using nelvo::client::BundlePtr;
using nelvo::client::MessageProxy;
using nelvo::client::Reply;

// One request under way. The first event that decides the outcome ends the main loop; what comes
// after it is ignored.
class Exchange {
public:
    explicit Exchange(const Call &call);
    Outcome run();

private:
    void request();
    void take(const Answer &answer);
    void finish(ExitCode code, std::string error);
    void refuseConnect(int error);
    static Eina_Bool _timeoutCb(void *data);

    const Call &_call;
    MessageProxy _proxy;
    Outcome _outcome;
    bool _finished = false;
};

Exchange::Exchange(const Call &call) : _call(call) {
    _proxy.events.connected = [this] { request(); };
    _proxy.events.answered = [this](const Answer &answer) { take(answer); };
    _proxy.events.rejected = [this] {
        finish(EXIT_CODE_UNREACHABLE,
               _call.appId + " refused the connection; its log (NELVO_LOG=info) says why");
    };
    _proxy.events.disconnected = [this] {
        finish(EXIT_CODE_UNREACHABLE, "lost the connection to " + _call.appId +
                                          " before it answered; see whether it still runs");
    };
    _proxy.events.malformed = [this](const char *reason) {
        std::fprintf(stderr, "nelvoctl: ignored a message of %s that is no answer: %s\n",
                     _call.appId.c_str(), reason);
    };
}

Outcome Exchange::run() {
    int error = _proxy.connect(_call.appId);
    if (error != RPC_PORT_ERROR_NONE) {
        refuseConnect(error);
        return _outcome;
    }
    Ecore_Timer *timer = ecore_timer_add(_call.timeoutSeconds, _timeoutCb, this);
    if (!timer)
        return {EXIT_CODE_UNREACHABLE, {}, "out of memory; free some and try again"};
    ecore_main_loop_begin();
    if (_outcome.code != EXIT_CODE_TIMEOUT)
        ecore_timer_del(timer);
    return _outcome;
}

void Exchange::request() {
    Reply reply = _proxy.setCb();
    if (reply.error != RPC_PORT_ERROR_NONE) {
        finish(EXIT_CODE_UNREACHABLE,
               _call.appId + " did not accept the request; see whether its main loop runs");
        return;
    }
    if (!reply.ok()) {
        finish(EXIT_CODE_UNREACHABLE,
               _call.appId + " does not permit " + _call.clientId +
                   "; add that id to its allow list, or choose a permitted one with --as");
        return;
    }
    BundlePtr bundle = nelvo::client::makeRequest(_call.request);
    if (!bundle || _proxy.send(bundle.get()) != RPC_PORT_ERROR_NONE)
        finish(EXIT_CODE_UNREACHABLE,
               "could not send the request to " + _call.appId +
                   "; see whether it still runs, or make PARAMS smaller if they are huge");
}

void Exchange::take(const Answer &answer) {
    // Answers to an earlier client of our name come here as well.
    if (_finished || answer.response.requestId != _call.request.requestId)
        return;
    _outcome.response = answer.response;
    finish(answer.response.succeeded() ? EXIT_CODE_SUCCESS : EXIT_CODE_FAILURE, "");
}

void Exchange::finish(ExitCode code, std::string error) {
    if (_finished)
        return;
    _finished = true;
    _outcome.code = code;
    _outcome.error = std::move(error);
    ecore_main_loop_quit();
}

void Exchange::refuseConnect(int error) {
    if (error == RPC_PORT_ERROR_INVALID_PARAMETER)
        finish(EXIT_CODE_USAGE, "\"" + _call.appId +
                                    "\" is not an application id; give the id in the "
                                    "application's manifest");
    else if (error == RPC_PORT_ERROR_PERMISSION_DENIED)
        finish(EXIT_CODE_UNREACHABLE,
               _call.appId + " runs as another user; run nelvoctl as that user");
    else
        finish(EXIT_CODE_UNREACHABLE, "nobody serves \"message\" as " + _call.appId +
                                          "; start that application first, with the same "
                                          "NELVO_HOST_RUNTIME_DIR");
}

Eina_Bool Exchange::_timeoutCb(void *data) {
    auto *self = static_cast<Exchange *>(data);
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%g", self->_call.timeoutSeconds);
    self->finish(EXIT_CODE_TIMEOUT, self->_call.appId + " gave no answer within " + seconds +
                                        " s; wait longer with --timeout, or see whether another "
                                        "client's request overtook this one");
    return ECORE_CALLBACK_CANCEL;
}

} // namespace

Outcome exchange(const Call &call) {
    if (ecore_init() == 0)
        return {EXIT_CODE_UNREACHABLE, {}, "the main loop cannot be started; see the log above"};
    Outcome outcome = Exchange(call).run();
    ecore_shutdown();
    return outcome;
}

} // namespace nelvoctl
