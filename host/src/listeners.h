// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

#include "handles.h"
#include "loop.h"

namespace host {

// The callbacks registered for one kind of event, in order.
template <typename Cb>
class Listeners {
public:
    void add(Cb cb, void *data) { _entries.push_back({cb, data}); }
    void clear() { _entries.clear(); }

    // Calls call(cb, data) for each callback until it returns false. Callbacks may call add() and
    // clear().
    template <typename Call>
    void each(Call call) const {
        for (std::size_t i = 0; i < _entries.size(); ++i) {
            const Entry entry = _entries[i];
            if (!call(entry.cb, entry.data))
                return;
        }
    }

private:
    struct Entry {
        Cb cb;
        void *data;
    };
    std::vector<Entry> _entries;
};

// Runs the body of the named exported function for the object of the handle, and turns exceptions into
// error codes. The function must be called on the main loop's thread. Keeps the object alive meanwhile.
template <typename Object, typename Work>
int guarded(const char *function, void *handle, bool argumentsValid, Work work) {
    if (!Loop::isOwnThread(function))
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    auto *const entry = Handles<std::shared_ptr<Object>>::instance().find(handle);
    if (!entry || !argumentsValid)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    const std::shared_ptr<Object> object = *entry;
    return guarded([&] { return work(*object); });
}

// The body of the named exported function, which registers a callback.
template <typename Object, typename Cb>
int addListener(const char *function, void *handle, Listeners<Cb> Object::*listeners, Cb cb,
                void *data) {
    return guarded<Object>(function, handle, cb, [&](Object &object) {
        (object.*listeners).add(cb, data);
        return RPC_PORT_ERROR_NONE;
    });
}

} // namespace host
