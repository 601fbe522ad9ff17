// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <vector>

namespace host {

// The callbacks registered for one kind of event, in order.
template <typename Cb>
class Listeners {
public:
    void add(Cb cb, void *data) { _entries.push_back({cb, data}); }

    // Calls call(cb, data) for each until one answers false. A callback may add further ones.
    template <typename Call>
    void each(Call call) const {
        for (std::size_t i = 0; i < _entries.size(); ++i) {
            const Entry entry = _entries[i];
            if (!call(entry.cb, entry.data)) {
                return;
            }
        }
    }

private:
    struct Entry {
        Cb cb;
        void *data;
    };
    std::vector<Entry> _entries;
};

} // namespace host
