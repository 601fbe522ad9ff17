// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
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

// Serves action execution requests: calls the application's callback and makes sure that the client
// gets an answer, the application's own or a failure from the library.
//
// One request is pending at a time. Which of the two timers is set tells the request's state:
//   idle                      neither is set
//   waiting for registration  _actionExecutionFireTimer: no callback is registered yet; each of the
//                             first five ticks, 0.02 s apart, looks for one, and the sixth answers
//                             with a failure
//   awaiting completion       _completeActionExecutionTimer: the callback has been called and has
//                             30 s to report
// The dispatch calls deleteTimer() before each new request: an overtaken request gets no answer. A
// request whose timer cannot be created is answered with a failure; the application never sees it.
//
// Owns the registrations and, while waiting for one, a copy of the request; the bundle given to
// receiveRequest() stays the caller's. Handler numbers and the request map are shared, in
// NelvoCommonData.
//
// Main-loop thread only, except getInstance(). The application may register, remove, complete or
// stop the library from inside its callback: no member is used after the callback returns.
class ActionRequestImpl {
public:
    // Null if the object could not be allocated; every later call then returns null as well.
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

    // Starts the completion timer and calls the callback; if the timer cannot be created, answers
    // with a failure instead. Logs under the given function's name. Uses neither the registration
    // nor the action id nor this object after the callback has been called.
    void callApplication(const ActionExecutionInfo &info, std::string_view actionId,
                         bundle *request, const char *function);

    // Answers the current request with a failure; false if the answer cannot be built.
    static bool sendFailure(const char *statusMessage, const char *function);

    static std::atomic<ActionRequestImpl *> _instance;

    int _fireRetryCount = 0; // ticks of the registration wait so far
    Ecore_Timer *_completeActionExecutionTimer = nullptr;
    Ecore_Timer *_actionExecutionFireTimer = nullptr;
    rpc_port::message::Bundle _actionRequestBundle{nullptr}; // set while waiting for a registration
    std::map<std::string, std::unique_ptr<ActionExecutionInfo>, std::less<>>
        _actionExecutionInfoMap; // by action id; std::less<> looks up without making a string
};

} // namespace nelvo
