// SPDX-License-Identifier: Apache-2.0
#include "state_request_impl.h"

#include <new>

#include <pthread.h>

#include "keys.h"
#include "log.h"
#include "nelvo_common_data.h"
#include "response.h"
#include "watch.h"

namespace nelvo {
namespace {

constexpr const char *NOT_REGISTERED = "App state request callback not registered";
constexpr const char *TIMED_OUT = "App state request execution timed out";

} // namespace

std::atomic<StateRequestImpl *> StateRequestImpl::_instance{nullptr};

StateRequestImpl *StateRequestImpl::getInstance() {
    if (StateRequestImpl *const instance = _instance.load(std::memory_order_acquire))
        return instance;
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, _initInstance);
    return _instance;
}

void StateRequestImpl::_initInstance() {
    _instance = new (std::nothrow) StateRequestImpl;
}

int StateRequestImpl::initialize() {
    return NELVO_ERROR_NONE;
}

int StateRequestImpl::deinitialize() {
    cancelTimer(_completeCheckTimer);
    _stateRequestInfo.reset();
    return NELVO_ERROR_NONE;
}

int StateRequestImpl::setAppStateRequestCb(nelvo_app_state_request_cb callback, void *userData) {
    if (!callback) {
        unsetAppStateRequestCb();
    } else {
        if (!_stateRequestInfo)
            _stateRequestInfo.reset(new (std::nothrow) StateRequestInfo);
        if (!_stateRequestInfo) {
            NELVO_LOGE("StateRequestInfo is null");
            return NELVO_ERROR_OUT_OF_MEMORY;
        }
        *_stateRequestInfo = {callback, userData};
    }
    NELVO_LOGD("App State Request cb has been set");
    return NELVO_ERROR_NONE;
}

int StateRequestImpl::unsetAppStateRequestCb() {
    _stateRequestInfo.reset();
    NELVO_LOGD("App State Request Cb has been unset");
    return NELVO_ERROR_NONE;
}

void StateRequestImpl::receiveRequest(const std::string &clientAppId, const std::string &actionId) {
    NelvoCommonData::getInstance()->_nelvoClientAppId = clientAppId;
    if (!_stateRequestInfo) {
        NELVO_LOGE("There is no app state request callback.");
        bundle *response = createFailureResponse(KEY_APP_STATE, NOT_REGISTERED);
        if (!response) {
            NELVO_LOGE("Bundle create failed");
            return;
        }
        const int sent = sendResponse(response);
        NELVO_LOGD("message_port_send_message status: %d", sent);
        return;
    }
    void *actionHandler =
        beginWatch(_completeCheckTimer, _appStateRequestCompleteCheckCb, this, actionId, __func__);
    if (actionHandler)
        callApplication(__func__, _stateRequestInfo->callback, actionHandler,
                        _stateRequestInfo->userData);
    else
        sendTimeOut(__func__);
}

bool StateRequestImpl::sendTimeOut(const char *function) {
    bundle *response = createFailureResponse(KEY_APP_STATE, TIMED_OUT);
    if (!response) {
        NELVO_LOG(DLOG_ERROR, function, "bundle_create is failed");
        return false;
    }
    sendResponse(response);
    return true;
}

Eina_Bool StateRequestImpl::_appStateRequestCompleteCheckCb(void *data) {
    auto *self = static_cast<StateRequestImpl *>(data);
    if (!self) {
        NELVO_LOGE("State Request is null");
        return ECORE_CALLBACK_CANCEL;
    }
    if (expireWatch(self->_completeCheckTimer,
                    "App state request execution timed out. Failed to execute action.", __func__) &&
        sendTimeOut(__func__)) {
        NelvoCommonData *common = NelvoCommonData::getInstance();
        common->_requestIdMap.erase(common->_currentActionHandler);
    }
    return ECORE_CALLBACK_CANCEL;
}

int StateRequestImpl::completeAppStateRequest(void *actionHandler, const std::string &appContext) {
    if (!actionHandler) {
        NELVO_LOGE("StateRequestInfo is null");
        return NELVO_ERROR_INVALID_PARAMETER;
    }
    const Completion completion =
        checkCompletion(actionHandler, _completeCheckTimer,
                        "App State result recieved after timeout, discarding", __func__);
    if (completion.verdict != Completion::SEND)
        return completion.code; // a dropped one keeps its entry

    cancelTimer(_completeCheckTimer);
    NELVO_LOGD("App result:");
    bundle *response = createSuccessResponse(KEY_APP_STATE, appContext);
    if (!response) {
        NELVO_LOGE("bundle_create is failed");
        return NELVO_ERROR_OUT_OF_MEMORY;
    }
    NELVO_LOGD("_nelvoClientAppId : %s", NelvoCommonData::getInstance()->_nelvoClientAppId.c_str());
    NELVO_LOGD("App Context:");
    NELVO_LOGD("%s", appContext.c_str());
    const int sent = sendResponse(response);
    NELVO_LOGD("[NelvoClient <- App] send result: %d", sent);
    return NELVO_ERROR_NONE; // the entry stays until the next request
}

void StateRequestImpl::deleteTimer() {
    cancelTimer(_completeCheckTimer);
}

} // namespace nelvo
