// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include <Ecore.h>
#include <bundle.h>
#include <nelvo.h>

#include "message/message.h"

namespace nelvo {

// Serves action execution requests: calls the application's callback and sees to it that the client
// hears back, from the application or, failing that, from us.
//
// One request is pending at a time, and the two timers say where it stands:
//   idle                      neither is set
//   waiting for registration  _actionExecutionFireTimer: no callback yet; each of the first five
//                             ticks, 0.02 s apart, looks for one, the sixth answers with a failure
//   awaiting completion       _completeActionExecutionTimer: callback called, 30 s to report
// The dispatch calls deleteTimer() before each new request: an overtaken one is dropped unanswered.
// A request that can't be watched never reaches the application; it is answered with a failure.
//
// Owns the registrations and, while waiting, a copy of the request; what receiveRequest() is given
// stays the caller's. Handler numbers and the request map are shared, in NelvoCommonData.
//
// Main-loop thread only, but for getInstance(). The application may register, remove, complete or
// stop the library from inside its callback: nothing of this object is used after it returns.
class ActionRequestImpl {
public:
    // Null when the object could not be allocated, then and ever after.
    static ActionRequestImpl *getInstance();

    int deinitialize();

    int setActionExecutionCb(const std::string &actionId, nelvo_action_execution_cb callback,
                             void *userData);
    int unsetExecuteActionCb(const std::string &actionId);

    // Serves a request whose id is NelvoCommonData::_requestId.
    void receiveRequest(const std::string &clientAppId, const std::string &actionId,
                        bundle *request);
    int completeActionExecution(void *actionHandler, const std::string &result);

    // Drops the pending request without an answer.
    void deleteTimer();

private:
    struct ActionExecutionInfo {
        nelvo_action_execution_cb callback;
        void *userData;
    };

    ActionRequestImpl() = default;
    static void _initInstance();

    static Eina_Bool _actionExecutionFireCb(void *data);
    static Eina_Bool _completeActionExecutionCheckCb(void *data);
    static void _bundleDataCb(const char *key, const int type, const bundle_keyval_t *kv,
                              void *data);

    // Begins to await completion and calls the callback; a request that can't be watched is
    // answered with a failure instead. Logs in the name of the given function. The registration,
    // the action id and this object are not used once the callback has been called.
    void callApplication(const ActionExecutionInfo &info, std::string_view actionId,
                         bundle *request, const char *function);

    // Answers the current request with a failure; false when the answer can't be built.
    static bool sendFailure(const char *statusMessage, const char *function);

    static ActionRequestImpl *_instance;

    int _fireRetryCount = 0; // ticks of the registration wait so far
    Ecore_Timer *_completeActionExecutionTimer = nullptr;
    Ecore_Timer *_actionExecutionFireTimer = nullptr;
    rpc_port::message::Bundle _actionRequestBundle{nullptr}; // set while waiting for a registration
    std::map<std::string, std::unique_ptr<ActionExecutionInfo>, std::less<>>
        _actionExecutionInfoMap; // by action id; std::less<> looks up without making a string
};

} // namespace nelvo
