// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <memory>
#include <string>

#include <Ecore.h>
#include <nelvo.h>

namespace nelvo {

// Serves app state requests: calls the application's one state callback and makes sure that the
// client gets an answer.
//
// A request is pending while _completeCheckTimer is set: the callback has been called and has 30
// seconds to report. Without a callback the request is refused at once; unlike a request for an
// action it does not wait for a registration. The dispatch calls deleteTimer() before each new
// request: an overtaken request gets no answer. A request whose timer cannot be created is answered
// with a failure; the application never sees it.
//
// Main-loop thread only, except getInstance(). The application may register, remove, complete or
// stop the library from inside its callback: no member is used after the callback returns.
class StateRequestImpl {
public:
    // Null if the object could not be allocated; every later call then returns null as well.
    static StateRequestImpl *getInstance();

    int initialize();
    int deinitialize();

    int setAppStateRequestCb(nelvo_app_state_request_cb callback, void *userData);
    int unsetAppStateRequestCb();

    // Serves a request whose id is NelvoCommonData::_requestId.
    void receiveRequest(const std::string &clientAppId, const std::string &actionId);
    int completeAppStateRequest(void *actionHandler, const std::string &appContext);

    // Drops the pending request without an answer.
    void deleteTimer();

private:
    struct StateRequestInfo {
        nelvo_app_state_request_cb callback;
        void *userData;
    };

    StateRequestImpl() = default;
    static void _initInstance();

    static Eina_Bool _appStateRequestCompleteCheckCb(void *data);

    // Answers the current request with the time-out failure, logging under the given function's
    // name; false if the answer cannot be built.
    static bool sendTimeOut(const char *function);

    static std::atomic<StateRequestImpl *> _instance;

    std::unique_ptr<StateRequestInfo> _stateRequestInfo; // null: no callback is registered
    Ecore_Timer *_completeCheckTimer = nullptr;
};

} // namespace nelvo
