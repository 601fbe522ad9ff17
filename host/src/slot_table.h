// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

namespace host {

// Gives things of one kind the handles under which C callers know them.
//
// A handle is no address: it is made of the kind, the slot and how often the slot has been used.
// One that is stale, of another kind or plain nonsense is therefore recognised without touching
// any memory, and its slot's next tenant is never mistaken for it.
template <typename Value, unsigned KIND>
class SlotTable {
public:
    // Throws std::bad_alloc; nothing has changed then.
    void *add(Value value) {
        if (_firstFree == _slots.size()) {
            if (_slots.size() >= MAX_SLOTS) {
                throw std::bad_alloc();
            }
            _slots.push_back(
                Slot{(_slots.size() << KIND_BITS) | KIND, _slots.size() + 1, false, {}});
        }
        Slot &slot = _slots[_firstFree];
        _firstFree = slot.nextFree;
        slot.used = true;
        slot.value = std::move(value);
        return toHandle(slot.name);
    }

    // Null for a handle that is not in use. The value may move when another one is added.
    Value *find(const void *handle) {
        const auto name = reinterpret_cast<std::uintptr_t>(handle);
        const std::size_t index = (name >> KIND_BITS) % MAX_SLOTS;
        const bool known =
            index < _slots.size() && _slots[index].used && _slots[index].name == name;
        return known ? &_slots[index].value : nullptr;
    }

    // The value comes back, so that its destructor runs only when the table is in order again.
    Value remove(const void *handle) {
        if (!find(handle)) {
            return Value{};
        }
        const std::size_t index =
            (reinterpret_cast<std::uintptr_t>(handle) >> KIND_BITS) % MAX_SLOTS;
        Slot &slot = _slots[index];
        slot.used = false;
        slot.name += MAX_SLOTS << KIND_BITS;
        slot.nextFree = std::exchange(_firstFree, index);
        return std::exchange(slot.value, Value{});
    }

    // Slots, used or not; handleAt() is null for one that is not.
    std::size_t slotCount() const { return _slots.size(); }
    void *handleAt(std::size_t index) const {
        return _slots[index].used ? toHandle(_slots[index].name) : nullptr;
    }

private:
    static constexpr unsigned KIND_BITS = 3;
    static constexpr std::uintptr_t MAX_SLOTS = std::uintptr_t{1} << 20;
    static_assert(KIND > 0 && KIND < (1U << KIND_BITS), "a handle must never be null");

    struct Slot {
        std::uintptr_t name;
        std::size_t nextFree; // the slot count: none
        bool used;
        Value value;
    };

    static void *toHandle(std::uintptr_t name) {
        return reinterpret_cast<void *>(name); // NOLINT(performance-no-int-to-ptr)
    }

    std::vector<Slot> _slots;
    std::size_t _firstFree = 0;
};

} // namespace host
