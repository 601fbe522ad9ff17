// SPDX-License-Identifier: Apache-2.0
#include "watch.h"

#include <utility>

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

void cancelTimer(Ecore_Timer *&timer) {
    if (timer)
        ecore_timer_del(std::exchange(timer, nullptr));
}

} // namespace nelvo
