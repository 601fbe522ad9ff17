// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

#include "handles.h"

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

// The body of the exported functions that register a callback.
template <typename Object, typename Cb>
int addListener(void *handle, Listeners<Cb> Object::*listeners, Cb cb, void *data) {
    return guarded<Object>(handle, cb, [&](Object &object) {
        (object.*listeners).add(cb, data);
        return RPC_PORT_ERROR_NONE;
    });
}

} // namespace host
