// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace nelvo {

// What the dispatch and the two request handlers share: which request is the current one, who sent
// it, and which action handler stands for it.
//
// An action handler is the address of an element of _actionHandlers, which holds the handler's
// number. The addresses are the same for the life of the process. After each initialize() the
// numbers are used in the order 2, 3 ... 99, 0, 1, 2 ...
//
// An entry of _requestIdMap lasts from the moment a handler is taken for a request until the
// request is answered or overtaken, or the library is stopped.
//
// Main-loop thread only, except getInstance().
class NelvoCommonData {
public:
    // Null if the object could not be allocated; every later call then returns null as well.
    static NelvoCommonData *getInstance();

    int initialize();
    int deinitialize();

    // Takes the next action handler for the current request, and returns its number. Changes
    // nothing if it throws.
    int takeActionHandler(std::string_view actionId);

    // The element of _actionHandlers that an application's pointer points to; null for any other
    // pointer, which is not dereferenced.
    const int *findActionHandler(const void *actionHandler) const;

    int _currentActionHandler = 0; // number of the handler taken last
    int _actionHandlers[100] = {};
    std::map<int, std::pair<std::string, unsigned long long>>
        _requestIdMap;                 // (action id, request id)
    std::string _nelvoClientAppId;     // who sent the latest request; outlives a restart
    unsigned long long _requestId = 0; // of the latest request

private:
    NelvoCommonData() = default;
    static void _initInstance();

    static std::atomic<NelvoCommonData *> _instance;
};

} // namespace nelvo
