// SPDX-License-Identifier: Apache-2.0
#include "nelvo_common_data.h"

#include <cstdint>
#include <limits>
#include <new>
#include <numeric>

#include <pthread.h>

namespace nelvo {
namespace {

constexpr int HANDLER_COUNT = sizeof(NelvoCommonData::_actionHandlers) / sizeof(int);
constexpr auto NO_REQUEST = std::numeric_limits<unsigned long long>::max();

} // namespace

std::atomic<NelvoCommonData *> NelvoCommonData::_instance{nullptr};

NelvoCommonData *NelvoCommonData::getInstance() {
    if (NelvoCommonData *const instance = _instance.load(std::memory_order_acquire))
        return instance;
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, _initInstance);
    return _instance;
}

void NelvoCommonData::_initInstance() {
    _instance = new (std::nothrow) NelvoCommonData;
}

int NelvoCommonData::initialize() {
    _requestId = NO_REQUEST;
    _currentActionHandler = 1;
    std::iota(std::begin(_actionHandlers), std::end(_actionHandlers), 0);
    return 0;
}

int NelvoCommonData::deinitialize() {
    _requestId = NO_REQUEST;
    _currentActionHandler = 0;
    return 0;
}

int NelvoCommonData::takeActionHandler(std::string_view actionId) {
    const int number = (_currentActionHandler + 1) % HANDLER_COUNT;
    _requestIdMap.insert_or_assign(number, std::make_pair(std::string(actionId), _requestId));
    _currentActionHandler = number;
    return number;
}

const int *NelvoCommonData::findActionHandler(const void *actionHandler) const {
    // Compared as numbers, since the pointer may point anywhere.
    const auto offset = reinterpret_cast<std::uintptr_t>(actionHandler) -
                        reinterpret_cast<std::uintptr_t>(_actionHandlers);
    if (offset >= sizeof(_actionHandlers) || offset % sizeof(int) != 0)
        return nullptr;
    return &_actionHandlers[offset / sizeof(int)];
}

} // namespace nelvo
