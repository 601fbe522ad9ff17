// SPDX-License-Identifier: Apache-2.0
#include "nelvo_impl.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include <pthread.h>

#include <app_common.h>
#include <app_info.h>

#include "action_request_impl.h"
#include "keys.h"
#include "log.h"
#include "message_service.h"
#include "nelvo_common_data.h"
#include "owned_text.h"
#include "state_request_impl.h"

namespace nelvo {
namespace {

namespace stub = rpc_port::message::stub;

constexpr const char *SDK_VERSION_KEY =
    "http://developer.tizen.org/tizen/metadata/nelvo/sdk/version";
constexpr const char *UNSUPPORTED_SDK_VERSION = "1.0-alpha";

// Copies the value of the SDK-version entry to the char * that user_data points to.
bool _nelvo_metadata_cb(const char *metadata_key, const char *metadata_value, void *user_data) {
    NELVO_LOGD("metadata_key[%s] metadata_value[%s]", metadata_key, metadata_value);
    if (std::strcmp(metadata_key, SDK_VERSION_KEY) != 0)
        return true;
    const std::size_t size = std::strlen(metadata_value) + 1;
    char *copy = static_cast<char *>(std::malloc(size));
    if (!copy) {
        NELVO_LOGE("out of memory, SDK version %s is skipped", metadata_value);
        return true;
    }
    std::memcpy(copy, metadata_value, size);
    char **version = static_cast<char **>(user_data);
    std::free(*version); // the key may stand in the manifest twice
    *version = copy;
    return true;
}

// A request's action id, owned by the bundle, and its request id.
struct Envelope {
    const char *actionId;
    unsigned long long requestId;
};

bool readEnvelope(bundle *request, Envelope &envelope, const char *function) {
    char *actionId = nullptr;
    if (!request || bundle_get_str(request, ACTION_ID, &actionId) != BUNDLE_ERROR_NONE) {
        NELVO_LOG(DLOG_ERROR, function, "request without %s, dropped", ACTION_ID);
        return false;
    }
    envelope = {actionId, 0};

    void *bytes = nullptr;
    std::size_t size = 0;
    const int error = bundle_get_byte(request, REQUEST_ID, &bytes, &size);
    if (error == BUNDLE_ERROR_KEY_NOT_AVAILABLE)
        return true;
    if (error != BUNDLE_ERROR_NONE || size != sizeof(envelope.requestId)) {
        NELVO_LOG(DLOG_ERROR, function, "request whose %s is not %zu bytes, dropped", REQUEST_ID,
                  sizeof(envelope.requestId));
        return false;
    }
    std::memcpy(&envelope.requestId, bytes, size);
    return true;
}

} // namespace

std::atomic<NelvoImpl *> NelvoImpl::_instance{nullptr};

NelvoImpl *NelvoImpl::getInstance() {
    if (NelvoImpl *const instance = _instance.load(std::memory_order_acquire))
        return instance;
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, _initInstance);
    return _instance;
}

void NelvoImpl::_initInstance() {
    try {
        _instance = new (std::nothrow) NelvoImpl;
    } catch (...) {
        logException(__func__);
    }
}

NelvoImpl::NelvoImpl() {
    char *id = nullptr;
    const int error = app_get_id(&id);
    if (error != 0) {
        // Without an id no manifest can be found, which counts as a manifest that cannot be read.
        NELVO_LOGE("app_get_id failed ERROR[%d]", error);
        _tidlSupported = 1;
        return;
    }
    const OwnedText owner(id);
    _tidlSupported = getAppSdkVersion(id);
}

int NelvoImpl::getAppSdkVersion(std::string appId) {
    NELVO_LOGD("AppId = %s", appId.c_str());
    app_info_h handle = nullptr;
    int error = app_info_create(appId.c_str(), &handle);
    if (error != 0) {
        NELVO_LOGE("app_info_create failed ERROR[%d]", error);
        return 1;
    }
    const std::unique_ptr<app_info_s, decltype(&app_info_destroy)> info(handle, app_info_destroy);
    char *copy = nullptr;
    error = app_info_foreach_metadata(info.get(), _nelvo_metadata_cb, &copy);
    const OwnedText version(copy);
    if (error != 0) {
        NELVO_LOGE("app_info_foreach_metadata failed ERROR[%d]", error);
        return 1;
    }
    NELVO_LOGD("AppSdkVersion %s", version ? version.get() : "(null)");
    return version && !std::strstr(version.get(), UNSUPPORTED_SDK_VERSION) ? 1 : 0;
}

int NelvoImpl::initialize() {
    if (_isInitialized) {
        NELVO_LOGE("NelvoImpl has been already initialized");
        return NELVO_ERROR_NONE;
    }
    if (_tidlSupported != 1) {
        NELVO_LOGD("App SDK Nelvo Init Failed. App SDK version doesn't support TIDL.");
        return NELVO_ERROR_NOT_SUPPORTED;
    }

    std::unique_ptr<stub::message> created; // destroyed again by whatever fails from here on
    try {
        created.reset(new (std::nothrow) stub::message);
        if (!created) {
            NELVO_LOGE("message is failed");
            return NELVO_ERROR_OUT_OF_MEMORY;
        }
        created->Listen(std::make_shared<messageService::Factory>());
    } catch (const stub::InvalidIOException &) {
        NELVO_LOGE("Listen error: InvalidIOException");
        return NELVO_ERROR_OPERATION_FAILED;
    }

    NelvoCommonData *data = NelvoCommonData::getInstance();
    if (!data) {
        NELVO_LOGE("NelvoCommonData instance is null");
        return NELVO_ERROR_OUT_OF_MEMORY;
    }
    if (!StateRequestImpl::getInstance()) {
        NELVO_LOGE("StateRequestImpl instance is null");
        return NELVO_ERROR_OUT_OF_MEMORY;
    }
    if (!ActionRequestImpl::getInstance()) {
        NELVO_LOGE("ActionRequestImpl instance is null");
        return NELVO_ERROR_OUT_OF_MEMORY;
    }
    _messageStub = std::move(created);
    _isInitialized = true;
    data->initialize();
    NELVO_LOGD("App SDK NelvoImpl is initialized");
    return NELVO_ERROR_NONE;
}

int NelvoImpl::deinitialize() {
    if (!_isInitialized) {
        NELVO_LOGE("NelvoImpl is not initialized. Please initialize at first.");
        return NELVO_ERROR_NONE;
    }
    StateRequestImpl::getInstance()->deinitialize();
    ActionRequestImpl::getInstance()->deinitialize();
    NelvoCommonData::getInstance()->deinitialize();
    _responseCallbacks.clear();
    _isInitialized = false;
    _messageStub.reset();
    NELVO_LOGD("NelvoImpl is deinitialized");
    return NELVO_ERROR_NONE;
}

void NelvoImpl::executeRequest(const char *sender, bundle *request) {
    Envelope envelope;
    if (!readEnvelope(request, envelope, __func__))
        return;

    // Whatever may run out of memory comes before the pending request is dropped.
    NelvoCommonData *data = NelvoCommonData::getInstance();
    const std::string client(sender);
    const std::string actionId(envelope.actionId);
    data->_nelvoClientAppId.reserve(client.size());

    data->_requestId = envelope.requestId;
    data->_requestIdMap.erase(data->_currentActionHandler);
    StateRequestImpl::getInstance()->deleteTimer();
    ActionRequestImpl::getInstance()->deleteTimer();
    if (actionId == ACTION_GET_APP_STATE) {
        NELVO_LOGD("App State request recieved");
        StateRequestImpl::getInstance()->receiveRequest(client, actionId);
    } else {
        NELVO_LOGD("Action Execution request recieved");
        ActionRequestImpl::getInstance()->receiveRequest(client, actionId, request);
    }
}

bool NelvoImpl::checkInitialized(const char *function) const {
    if (!_isInitialized)
        NELVO_LOG(DLOG_ERROR, function, "Nelvo is not initialized");
    return _isInitialized;
}

int NelvoImpl::setAppStateRequestCb(nelvo_app_state_request_cb callback, void *userData) {
    if (!checkInitialized(__func__))
        return NELVO_ERROR_OPERATION_FAILED;
    const int result = StateRequestImpl::getInstance()->setAppStateRequestCb(callback, userData);
    NELVO_LOGD("App State Request cb has been set");
    return result;
}

int NelvoImpl::unsetAppStateRequestCb() {
    if (!checkInitialized(__func__))
        return NELVO_ERROR_OPERATION_FAILED;
    const int result = StateRequestImpl::getInstance()->unsetAppStateRequestCb();
    NELVO_LOGD("App State Request Cb has been unset");
    return result;
}

int NelvoImpl::completeAppStateRequest(void *actionHandler, const std::string &appContext) {
    if (!checkInitialized(__func__))
        return NELVO_ERROR_OPERATION_FAILED;
    return StateRequestImpl::getInstance()->completeAppStateRequest(actionHandler, appContext);
}

int NelvoImpl::setActionExcutionCb(const std::string &actionId, nelvo_action_execution_cb callback,
                                   void *userData) {
    if (!checkInitialized(__func__))
        return NELVO_ERROR_OPERATION_FAILED;
    return ActionRequestImpl::getInstance()->setActionExecutionCb(actionId, callback, userData);
}

int NelvoImpl::unsetExecuteActionCb(const std::string &actionId) {
    if (!checkInitialized(__func__))
        return NELVO_ERROR_OPERATION_FAILED;
    return ActionRequestImpl::getInstance()->unsetExecuteActionCb(actionId);
}

int NelvoImpl::completeActionExecution(void *actionHandler, const std::string &result) {
    if (!checkInitialized(__func__))
        return NELVO_ERROR_OPERATION_FAILED;
    return ActionRequestImpl::getInstance()->completeActionExecution(actionHandler, result);
}

std::string NelvoImpl::getActionName(void *actionHandler) {
    NelvoCommonData *data = NelvoCommonData::getInstance();
    if (!data) {
        NELVO_LOGE("NelvoCommonData instance is null");
        return {};
    }
    const int *number = data->findActionHandler(actionHandler);
    const auto found = number ? data->_requestIdMap.find(*number) : data->_requestIdMap.end();
    if (found == data->_requestIdMap.end()) {
        NELVO_LOGE("In getActionName, entry not found");
        return {};
    }
    const std::string &actionId = found->second.first;
    NELVO_LOGD("In getActionName, Requested actionId %s", actionId.c_str());
    return actionId;
}

} // namespace nelvo
