// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include <rpc-port-parcel.h>

namespace host {

inline void *newHandle() {
    static std::uintptr_t last = 0;
    return reinterpret_cast<void *>(++last); // NOLINT(performance-no-int-to-ptr)
}

// What C callers know one kind of thing by. A handle is no address but a number that is used only
// once in the process: one that is stale, of another kind or plain nonsense is recognised without
// touching any memory.
//
// A hash table in one piece, since several handles are looked up for every request: a value stands
// at its handle's place or, when that is taken, in the next free one behind it.
template <typename Value>
class Handles {
public:
    // Never destroyed: applications release things from static destructors.
    static Handles &instance() {
        static Handles &handles = *new Handles;
        return handles;
    }

    // Throws std::bad_alloc; nothing has changed then.
    void *add(Value value) {
        if (2 * _count >= _slots.size())
            grow();
        void *const handle = newHandle();
        put(_slots, {handle, std::move(value)});
        _count++;
        return handle;
    }

    // Null for a handle that is not in use. What is found moves when another one is added or
    // removed.
    Value *find(void *handle) {
        Slot *const slot = handle != nullptr ? findSlot(handle) : nullptr;
        return slot != nullptr ? &slot->value : nullptr;
    }

    // The value comes back, so that its destructor runs only when the table is in order again.
    Value remove(void *handle) {
        Slot *slot = handle != nullptr ? findSlot(handle) : nullptr;
        if (slot == nullptr)
            return Value{};
        Value removed = std::exchange(*slot, Slot{}).value;
        _count--;
        // What stands behind may have its place here.
        while ((slot = &after(_slots, slot))->handle != nullptr)
            put(_slots, std::exchange(*slot, Slot{}));
        return removed;
    }

    // Calls call(handle, value) for each until one answers true, and gives that one's handle, or
    // null. The call must not add or remove any.
    template <typename Call>
    void *findIf(Call call) {
        for (Slot &slot : _slots) {
            if (slot.handle != nullptr && call(slot.handle, slot.value))
                return slot.handle;
        }
        return nullptr;
    }

private:
    struct Slot {
        void *handle = nullptr; // null: free
        Value value{};
    };
    using Slots = std::vector<Slot>; // empty, or a power of two many, half of them free

    static Slot &placeOf(Slots &slots, void *handle) {
        return slots[reinterpret_cast<std::uintptr_t>(handle) & (slots.size() - 1)];
    }
    static Slot &after(Slots &slots, Slot *slot) {
        return slot == &slots.back() ? slots.front() : slot[1];
    }
    static void put(Slots &slots, Slot &&filled) {
        Slot *slot = &placeOf(slots, filled.handle);
        while (slot->handle != nullptr)
            slot = &after(slots, slot);
        *slot = std::move(filled);
    }

    Slot *findSlot(void *handle) {
        if (_slots.empty())
            return nullptr;
        Slot *slot = &placeOf(_slots, handle);
        while (slot->handle != handle && slot->handle != nullptr)
            slot = &after(_slots, slot);
        return slot->handle == handle ? slot : nullptr;
    }

    void grow() {
        Slots larger(_slots.empty() ? 8 : 2 * _slots.size());
        for (Slot &slot : _slots) {
            if (slot.handle != nullptr)
                put(larger, std::move(slot));
        }
        _slots.swap(larger);
    }

    Slots _slots;
    std::size_t _count = 0;
};

// Runs what an exported function does, and turns a lack of memory into its error code.
template <typename Work>
int guarded(Work work) {
    try {
        return work();
    } catch (const std::bad_alloc &) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    } catch (...) {
        return RPC_PORT_ERROR_IO_ERROR;
    }
}

// The same for the object behind a handle, which stays alive meanwhile.
template <typename Object, typename Work>
int guarded(void *handle, bool argumentsValid, Work work) {
    auto *const entry = Handles<std::shared_ptr<Object>>::instance().find(handle);
    if (!entry || !argumentsValid)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    const std::shared_ptr<Object> object = *entry;
    return guarded([&] { return work(*object); });
}

} // namespace host
