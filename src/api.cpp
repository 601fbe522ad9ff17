// SPDX-License-Identifier: Apache-2.0
#include <nelvo.h>

#include <cstring>
#include <string>

#include "log.h"
#include "nelvo_impl.h"

using nelvo::NelvoImpl;

namespace {

std::string textOrNull(const char *text) {
    return text ? text : "null";
}

// Calls the given lambda, which calls the core, on behalf of the exported function of the given
// name. Turns each exception into an error code.
template <typename Operation>
int callCore(const char *function, Operation operation) {
    NelvoImpl *core = NelvoImpl::getInstance();
    if (!core) {
        NELVO_LOG(DLOG_ERROR, function, "NelvoImpl instance is null");
        return NELVO_ERROR_OUT_OF_MEMORY;
    }
    try {
        return operation(*core);
    } catch (...) {
        return nelvo::logException(function);
    }
}

} // namespace

int nelvo_initialize() {
    return callCore(__func__, [](NelvoImpl &core) { return core.initialize(); });
}

int nelvo_deinitialize() {
    if (!NelvoImpl::getInstance()) {
        NELVO_LOGE("NelvoImpl instance is null. Not initialized");
        return NELVO_ERROR_OUT_OF_MEMORY;
    }
    return callCore(__func__, [](NelvoImpl &core) { return core.deinitialize(); });
}

int nelvo_set_app_state_request_cb(nelvo_app_state_request_cb callback, void *user_data) {
    return callCore(
        __func__, [&](NelvoImpl &core) { return core.setAppStateRequestCb(callback, user_data); });
}

int nelvo_unset_app_state_request_cb() {
    return callCore(__func__, [](NelvoImpl &core) { return core.unsetAppStateRequestCb(); });
}

int nelvo_complete_app_state_request(void *action_handler, const char *app_context) {
    return callCore(__func__, [&](NelvoImpl &core) {
        return core.completeAppStateRequest(action_handler, textOrNull(app_context));
    });
}

int nelvo_set_action_execution_cb(const char *action_id, nelvo_action_execution_cb callback,
                                  void *user_data) {
    return callCore(__func__, [&](NelvoImpl &core) -> int {
        if (!action_id)
            return NELVO_ERROR_INVALID_PARAMETER;
        return core.setActionExcutionCb(action_id, callback, user_data);
    });
}

int nelvo_unset_action_execution_cb(const char *action_id) {
    return callCore(__func__, [&](NelvoImpl &core) -> int {
        if (!action_id)
            return NELVO_ERROR_INVALID_PARAMETER;
        return core.unsetExecuteActionCb(action_id);
    });
}

int nelvo_complete_action_execution(void *action_handler, const char *result) {
    return callCore(__func__, [&](NelvoImpl &core) {
        return core.completeActionExecution(action_handler, textOrNull(result));
    });
}

int nelvo_get_action_name(void *action_handler, char **action_id) {
    constexpr const char *function = "nelvo_get_action_name";
    return callCore(function, [&](NelvoImpl &core) -> int {
        if (!action_id) {
            NELVO_LOG(DLOG_ERROR, function, "action_id is null");
            return NELVO_ERROR_INVALID_PARAMETER;
        }
        const std::string name = core.getActionName(action_handler);
        *action_id = name.empty() ? nullptr : strdup(name.c_str());
        return name.empty() ? NELVO_ERROR_OPERATION_FAILED : NELVO_ERROR_NONE;
    });
}
