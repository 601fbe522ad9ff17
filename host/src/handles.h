// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>

#include <cxxabi.h>

#include <rpc-port-parcel.h>

namespace host {

inline void *newHandle() {
    static std::uintptr_t last = 0;
    if (++last == 0) // wrapped around; possible where pointers have 32 bits
        ++last;
    return reinterpret_cast<void *>(last); // NOLINT(performance-no-int-to-ptr)
}

// Maps handles, which C callers use, to values of one type. A handle is not an address but a number
// that is never used again, so that invalid handles are recognised without access to any memory.
template <typename Value>
class Handles {
public:
    // Never destroyed: applications release handles from static destructors.
    static Handles &instance() {
        static Handles &handles = *new Handles;
        return handles;
    }

    // Throws std::bad_alloc; nothing has changed then.
    void *add(Value value) {
        void *const handle = newHandle();
        _values.emplace(handle, std::move(value));
        return handle;
    }

    // Returns null for a handle that is not in use. The pointer is valid until remove().
    Value *find(void *handle) {
        const auto found = _values.find(handle);
        return found != _values.end() ? &found->second : nullptr;
    }

    // Returns the value, so that its destructor runs after the table has been changed.
    Value remove(void *handle) {
        auto node = _values.extract(handle);
        return node ? std::move(node.mapped()) : Value{};
    }

    // Returns the handle of a value for which matches(value) is true, or null.
    template <typename Matches>
    void *findIf(Matches matches) {
        const auto found = std::find_if(_values.begin(), _values.end(),
                                        [&](const auto &each) { return matches(each.second); });
        return found != _values.end() ? found->first : nullptr;
    }

private:
    std::unordered_map<void *, Value> _values;
};

// Runs the body of an exported function and turns exceptions into error codes. The exception that
// unwinds a thread is no object, which the sanitizer takes for a mistake.
template <typename Work>
__attribute__((no_sanitize("null"))) int guarded(Work work) {
    try {
        return work();
    } catch (const std::bad_alloc &) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    } catch (const abi::__forced_unwind &) { // the thread ends
        throw;
    } catch (...) {
        return RPC_PORT_ERROR_IO_ERROR;
    }
}

} // namespace host
