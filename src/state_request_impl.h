// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include <Ecore.h>
#include <nelvo.h>

namespace nelvo {

// Serves app state requests: asks the application's one state callback and sees to it that the
// client hears back.
//
// A request is pending while _completeCheckTimer is set: the callback has been called and has 30
// seconds to report. Without a callback the request is refused at once; unlike an action it does
// not wait for one. The dispatch calls deleteTimer() before each new request: an overtaken one is
// dropped unanswered. A request that can't be watched never reaches the application; it is answered
// with a failure.
//
// Main-loop thread only, but for getInstance(). The application may register, remove, complete or
// stop the library from inside its callback: nothing of this object is used after it returns.
class StateRequestImpl {
public:
    // Null when the object could not be allocated, then and ever after.
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

    // Answers the current request with the time-out failure, logging in the name of the given
    // function; false when the answer can't be built.
    static bool sendTimeOut(const char *function);

    static StateRequestImpl *_instance;

    std::unique_ptr<StateRequestInfo> _stateRequestInfo; // null: no callback is registered
    Ecore_Timer *_completeCheckTimer = nullptr;
};

} // namespace nelvo
