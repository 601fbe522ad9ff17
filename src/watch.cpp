// SPDX-License-Identifier: Apache-2.0
#include "watch.h"

#include <utility>

#include <nelvo.h>

#include "keys.h"
#include "log.h"
#include "nelvo_common_data.h"

namespace nelvo {

void *beginWatch(Ecore_Timer *&timer, Ecore_Task_Cb expired, void *data, std::string_view actionId,
                 const char *function) {
    timer = ecore_timer_add(COMPLETE_CHECKING_TIME * COMPLETE_WAITING_MAX_COUNT, expired, data);
    if (!timer) {
        NELVO_LOG(DLOG_ERROR, function, "the completion timer can't be created");
        return nullptr;
    }
    try {
        NelvoCommonData *common = NelvoCommonData::getInstance();
        return &common->_actionHandlers[common->takeActionHandler(actionId)];
    } catch (...) {
        logException(function);
        cancelTimer(timer);
        return nullptr;
    }
}

bool expireWatch(Ecore_Timer *&timer, const char *reason, const char *function) {
    if (!timer)
        return false;
    timer = nullptr;
    NELVO_LOG(DLOG_ERROR, function, "%s", reason);
    return true;
}

Completion checkCompletion(const void *actionHandler, const Ecore_Timer *timer, const char *tooLate,
                           const char *function) {
    const NelvoCommonData *data = NelvoCommonData::getInstance();
    if (data->_nelvoClientAppId.empty()) {
        NELVO_LOG(DLOG_ERROR, function, "Nelvo Client is not connected");
        return {Completion::RETURN, NELVO_ERROR_OPERATION_FAILED};
    }
    const int *number = data->findActionHandler(actionHandler);
    if (!number) {
        NELVO_LOG(DLOG_ERROR, function, "%p is not an action handler", actionHandler);
        return {Completion::RETURN, NELVO_ERROR_INVALID_PARAMETER};
    }
    const auto entry = data->_requestIdMap.find(*number);
    if (entry == data->_requestIdMap.end()) {
        NELVO_LOG(DLOG_ERROR, function, "Couldn't find requestId corresponding to actionHandler %d",
                  *number);
        return {Completion::RETURN, NELVO_ERROR_NONE};
    }
    if (entry->second.second != data->_requestId) {
        NELVO_LOG(DLOG_DEBUG, function, "Discarding response recieved for old requestId %llu",
                  entry->second.second);
        return {Completion::DROP, NELVO_ERROR_NONE, *number};
    }
    if (!timer) {
        NELVO_LOG(DLOG_ERROR, function, "%s", tooLate);
        return {Completion::RETURN, NELVO_ERROR_OPERATION_FAILED};
    }
    return {Completion::SEND, NELVO_ERROR_NONE, *number};
}

void cancelTimer(Ecore_Timer *&timer) {
    if (timer)
        ecore_timer_del(std::exchange(timer, nullptr));
}

} // namespace nelvo
