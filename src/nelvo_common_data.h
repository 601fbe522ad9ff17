// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>

namespace nelvo {

// What the dispatch and the two request handlers share: which request is the current one, who sent
// it, and which action handler stands for it.
//
// An action handler is the address of a slot of _actionHandlers. The slot holds the handler number
// n; the addresses are the same for the life of the process, the numbers are used in turn: 2, 3 ...
// 99, 0, 1, 2 ... after each initialize().
//
// An entry of _requestIdMap lasts from the moment a handler is taken for a request until the
// request is answered or overtaken, or the library is stopped.
//
// Main-loop thread only, but for getInstance().
class NelvoCommonData {
public:
    // Null when the object could not be allocated, then and ever after.
    static NelvoCommonData *getInstance();

    int initialize();
    int deinitialize();

    // Takes the next action handler for the current request, and gives its number. When it throws,
    // nothing has changed.
    int takeActionHandler(std::string_view actionId);

    // The slot that an application's pointer is the address of; null for any other pointer, which
    // is not read.
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

    static NelvoCommonData *_instance;
};

} // namespace nelvo
