// SPDX-License-Identifier: Apache-2.0
#include "action_request_impl.h"

#include <new>
#include <utility>

#include <pthread.h>

#include "keys.h"
#include "log.h"
#include "nelvo_common_data.h"
#include "response.h"
#include "watch.h"

namespace nelvo {
namespace {

using rpc_port::message::Bundle;

constexpr double REGISTRATION_TICK = 0.02; // seconds
constexpr int REGISTRATION_TICKS = 5;

constexpr const char *NOT_REGISTERED = "Action Execution callback not registered";
constexpr const char *TIMED_OUT = "Action execution request timed out";

// The bundle that _bundleDataCb() copies the entries to.
struct RequestCopy {
    bundle *destination;
    bool whole;
};

} // namespace

std::atomic<ActionRequestImpl *> ActionRequestImpl::_instance{nullptr};

ActionRequestImpl *ActionRequestImpl::getInstance() {
    if (ActionRequestImpl *const instance = _instance.load(std::memory_order_acquire))
        return instance;
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, _initInstance);
    return _instance;
}

void ActionRequestImpl::_initInstance() {
    _instance = new (std::nothrow) ActionRequestImpl;
}

int ActionRequestImpl::deinitialize() {
    cancelTimer(_actionExecutionFireTimer);
    _actionRequestBundle = Bundle(nullptr);
    cancelTimer(_completeActionExecutionTimer);
    _actionExecutionInfoMap.clear();
    NelvoCommonData::getInstance()->_requestIdMap.clear();
    return NELVO_ERROR_NONE;
}

int ActionRequestImpl::setActionExecutionCb(const std::string &actionId,
                                            nelvo_action_execution_cb callback, void *userData) {
    if (!callback) {
        unsetExecuteActionCb(actionId);
    } else {
        std::unique_ptr<ActionExecutionInfo> info(new (std::nothrow)
                                                      ActionExecutionInfo{callback, userData});
        if (!info) {
            NELVO_LOGE("actionHandlerInfo is null");
            return NELVO_ERROR_INVALID_PARAMETER;
        }
        _actionExecutionInfoMap.insert_or_assign(actionId, std::move(info));
    }
    NELVO_LOGD("'%s' Action Execution cb has been set", actionId.c_str());
    return NELVO_ERROR_NONE;
}

int ActionRequestImpl::unsetExecuteActionCb(const std::string &actionId) {
    _actionExecutionInfoMap.erase(actionId);
    NELVO_LOGD("'%s' Action Execution cb has been unset", actionId.c_str());
    return NELVO_ERROR_NONE;
}

void ActionRequestImpl::receiveRequest(const std::string &clientAppId, const std::string &actionId,
                                       bundle *request) {
    _actionRequestBundle = Bundle(nullptr);
    NelvoCommonData::getInstance()->_nelvoClientAppId = clientAppId;

    const auto found = _actionExecutionInfoMap.find(actionId);
    if (found != _actionExecutionInfoMap.end()) {
        NELVO_LOGD("Found execute action Id: %s  Callback: %p", actionId.c_str(),
                   static_cast<void *>(found->second.get()));
        callApplication(*found->second, actionId, request, __func__);
        return;
    }

    NELVO_LOGD("There is no matching action execution callback, "
               "waiting for sometime to see if reg can happen");
    if (_actionExecutionFireTimer)
        return;
    RequestCopy copy{bundle_create(), true};
    _actionRequestBundle = Bundle(copy.destination);
    if (!copy.destination) {
        NELVO_LOGE("bundle_create is failed");
        return;
    }
    bundle_foreach(request, _bundleDataCb, &copy);
    _fireRetryCount = 0;
    if (copy.whole)
        _actionExecutionFireTimer =
            ecore_timer_add(REGISTRATION_TICK, _actionExecutionFireCb, this);
    if (!_actionExecutionFireTimer) {
        NELVO_LOGE("%s", copy.whole ? "the registration timer can't be created"
                                    : "the request can't be copied");
        _actionRequestBundle = Bundle(nullptr);
        sendFailure(NOT_REGISTERED, __func__);
    }
}

void ActionRequestImpl::_bundleDataCb(const char *key, const int, const bundle_keyval_t *kv,
                                      void *data) {
    auto *copy = static_cast<RequestCopy *>(data);
    if (!copy) {
        NELVO_LOGE("Bundle data is null");
        return;
    }
    auto *value = const_cast<bundle_keyval_t *>(kv); // the platform's getters take no const
    if (bundle_keyval_type_is_array(value)) {
        NELVO_LOGE("key value is array type");
        return;
    }
    void *bytes = nullptr;
    std::size_t size = 0;
    int error = bundle_keyval_get_basic_val(value, &bytes, &size);
    if (error == BUNDLE_ERROR_NONE)
        error = bundle_keyval_get_type(value) == BUNDLE_TYPE_BYTE
                    ? bundle_add_byte(copy->destination, key, bytes, size)
                    : bundle_add_str(copy->destination, key, static_cast<const char *>(bytes));
    if (error != BUNDLE_ERROR_NONE)
        copy->whole = false;
}

Eina_Bool ActionRequestImpl::_actionExecutionFireCb(void *data) {
    NELVO_LOGD("_actionExecutionFireCb called");
    auto *actionPtr = static_cast<ActionRequestImpl *>(data);
    if (!actionPtr) {
        NELVO_LOGE("actionPtr is null");
        return ECORE_CALLBACK_CANCEL;
    }
    const char *missing = nullptr;
    if (NelvoCommonData::getInstance()->_nelvoClientAppId.empty())
        missing = "Nelvo Client app id is null";
    else if (!actionPtr->_actionRequestBundle.GetHandle())
        missing = "ActionRequest bundle data is null";
    else if (!actionPtr->_actionExecutionFireTimer)
        missing = "ActionRequest _actionExecutionFireTimer is null";
    if (missing) {
        NELVO_LOGE("%s", missing);
        actionPtr->_actionExecutionFireTimer = nullptr;
        return ECORE_CALLBACK_CANCEL;
    }

    if (actionPtr->_fireRetryCount++ >= REGISTRATION_TICKS) {
        NELVO_LOGE("There is no matching action execution callback.");
        actionPtr->_actionExecutionFireTimer = nullptr;
        actionPtr->_actionRequestBundle = Bundle(nullptr);
        sendFailure(NOT_REGISTERED, __func__);
        return ECORE_CALLBACK_CANCEL;
    }

    char *actionId = nullptr;
    if (bundle_get_str(actionPtr->_actionRequestBundle.GetHandle(), ACTION_ID, &actionId) !=
        BUNDLE_ERROR_NONE)
        return ECORE_CALLBACK_RENEW;
    const auto found = actionPtr->_actionExecutionInfoMap.find(std::string_view(actionId));
    if (found == actionPtr->_actionExecutionInfoMap.end())
        return ECORE_CALLBACK_RENEW;

    NELVO_LOGD("Found execute action Id: %s  Callback: %p", actionId,
               static_cast<void *>(found->second.get()));
    // Moved out of the member first: the callback may stop the library or run the main loop, which
    // delivers the next request.
    const Bundle request = std::exchange(actionPtr->_actionRequestBundle, Bundle(nullptr));
    actionPtr->_actionExecutionFireTimer = nullptr;
    actionPtr->callApplication(*found->second, actionId, request.GetHandle(), __func__);
    return ECORE_CALLBACK_CANCEL;
}

void ActionRequestImpl::callApplication(const ActionExecutionInfo &info, std::string_view actionId,
                                        bundle *request, const char *function) {
    void *actionHandler = beginWatch(_completeActionExecutionTimer, _completeActionExecutionCheckCb,
                                     this, actionId, function);
    if (actionHandler)
        nelvo::callApplication(function, info.callback, actionHandler, request, info.userData);
    else
        sendFailure(TIMED_OUT, function);
}

bool ActionRequestImpl::sendFailure(const char *statusMessage, const char *function) {
    bundle *response = createFailureResponse(KEY_ACTION_RESULT, statusMessage);
    if (!response) {
        NELVO_LOG(DLOG_ERROR, function, "bundle_create is failed");
        return false;
    }
    const int result = sendResponse(response);
    NELVO_LOG(DLOG_DEBUG, function, "send reponse result: %d", result);
    return true;
}

Eina_Bool ActionRequestImpl::_completeActionExecutionCheckCb(void *data) {
    auto *actionPtr = static_cast<ActionRequestImpl *>(data);
    if (!actionPtr) {
        NELVO_LOGE("Action Request Pointer is null");
        return ECORE_CALLBACK_CANCEL;
    }
    if (expireWatch(actionPtr->_completeActionExecutionTimer,
                    "action execution timed out. Failed to execute action.", __func__) &&
        sendFailure(TIMED_OUT, __func__)) {
        NelvoCommonData *common = NelvoCommonData::getInstance();
        common->_requestIdMap.erase(common->_currentActionHandler);
    }
    return ECORE_CALLBACK_CANCEL;
}

int ActionRequestImpl::completeActionExecution(void *actionHandler, const std::string &result) {
    const Completion completion =
        checkCompletion(actionHandler, _completeActionExecutionTimer,
                        "Action Execution result recieved after timeout, discarding", __func__);
    NelvoCommonData *data = NelvoCommonData::getInstance();
    if (completion.verdict == Completion::DROP)
        data->_requestIdMap.erase(completion.number);
    if (completion.verdict != Completion::SEND)
        return completion.code;

    cancelTimer(_completeActionExecutionTimer);
    bundle *response = createSuccessResponse(KEY_ACTION_RESULT, result);
    if (!response) {
        NELVO_LOGE("bundle_create is failed");
        return NELVO_ERROR_OUT_OF_MEMORY;
    }
    NELVO_LOGD("_nelvoClientAppId : %s", data->_nelvoClientAppId.c_str());
    NELVO_LOGD("Action result:");
    NELVO_LOGD("%s", result.c_str());
    const int sent = sendResponse(response);
    NELVO_LOGD("Response success");
    data->_requestIdMap.erase(completion.number);
    return sent;
}

void ActionRequestImpl::deleteTimer() {
    cancelTimer(_completeActionExecutionTimer);
    if (_actionExecutionFireTimer) {
        cancelTimer(_actionExecutionFireTimer);
        _actionRequestBundle = Bundle(nullptr);
    }
}

} // namespace nelvo
