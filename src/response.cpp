// SPDX-License-Identifier: Apache-2.0
#include "response.h"

#include <initializer_list>

#include <app_common.h>
#include <nelvo.h>

#include "keys.h"
#include "log.h"
#include "nelvo_common_data.h"
#include "nelvo_impl.h"
#include "owned_text.h"

namespace nelvo {
namespace {

using rpc_port::message::Bundle;
namespace stub = rpc_port::message::stub;

struct Entry {
    const char *key;
    const char *text;
};

bundle *createResponse(std::initializer_list<Entry> entries) {
    bundle *response = bundle_create();
    if (!response)
        return nullptr;
    bool whole = true;
    for (const Entry &entry : entries)
        whole = whole && bundle_add_str(response, entry.key, entry.text) == BUNDLE_ERROR_NONE;
    const unsigned long long id = NelvoCommonData::getInstance()->_requestId;
    whole = whole && bundle_add_byte(response, REQUEST_ID, &id, sizeof(id)) == BUNDLE_ERROR_NONE;
    if (whole)
        return response;
    bundle_free(response);
    return nullptr;
}

} // namespace

bundle *createSuccessResponse(const char *resultKey, const std::string &result) {
    return createResponse(
        {{KEY_STATUS_CODE, ACTION_EXECUTION_SUCCESS}, {resultKey, result.c_str()}});
}

bundle *createFailureResponse(const char *resultKey, const char *statusMessage) {
    return createResponse({{resultKey, ""},
                           {KEY_STATUS_CODE, ACTION_EXECUTION_FAILURE},
                           {KEY_STATUS_MESSAGE, statusMessage}});
}

int sendResponse(bundle *response) {
    Bundle owner(response);
    NelvoImpl *nelvo = NelvoImpl::getInstance();
    if (!nelvo) {
        NELVO_LOGE("NelvoImpl instance is null");
        return NELVO_ERROR_OUT_OF_MEMORY;
    }
    const std::string &client = NelvoCommonData::getInstance()->_nelvoClientAppId;
    if (client.empty()) {
        NELVO_LOGE("Nelvo Client is not connected");
        return NELVO_ERROR_OPERATION_FAILED;
    }

    char *id = nullptr;
    const int error = app_get_id(&id);
    if (error != 0) {
        NELVO_LOGE("app_get_id failed ERROR[%d]", error);
        return NELVO_ERROR_OPERATION_FAILED;
    }
    const OwnedText appId(id);
    NELVO_LOGI("App Id %s", id);

    const auto callback = nelvo->_responseCallbacks.find(client);
    if (callback == nelvo->_responseCallbacks.end()) {
        NELVO_LOGE("%s has no response callback", client.c_str());
        return NELVO_ERROR_OPERATION_FAILED;
    }
    try {
        callback->second->Invoke(id, std::move(owner));
        return NELVO_ERROR_NONE;
    } catch (const stub::NotConnectedSocketException &) {
        NELVO_LOGE("response error: NotConnectedSocketException");
    } catch (const stub::InvalidCallbackException &) {
        NELVO_LOGE("response error: InvalidCallbackException");
    } catch (const stub::InvalidIOException &) {
        NELVO_LOGE("response error: InvalidIOException");
    } catch (...) {
        return logException(__func__);
    }
    return NELVO_ERROR_OPERATION_FAILED;
}

} // namespace nelvo
