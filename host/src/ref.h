// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace host {

// Base of what several owners on any threads share; the last Ref to go destroys it.
struct Shared {
    Shared() = default;
    Shared(const Shared &) {} // the copy has owners of its own
    Shared &operator=(const Shared &) = delete;

    std::atomic<std::uint32_t> owners{0};
};

// One owner of a T, which derives from Shared and has a static destroy(T *). May be null.
template <typename T>
class Ref {
public:
    Ref() = default;
    explicit Ref(T *object) : _object(object) { retain(); }
    Ref(const Ref &other) : Ref(other._object) {}
    Ref(Ref &&other) noexcept : _object(std::exchange(other._object, nullptr)) {}
    ~Ref() { release(); }

    Ref &operator=(Ref other) noexcept {
        std::swap(_object, other._object);
        return *this;
    }

    explicit operator bool() const { return _object != nullptr; }
    T *operator->() const { return _object; }
    T &operator*() const { return *_object; }

    // Acquire: what former owners read of the object they have read before we change it.
    bool isOnlyOwner() const {
        return _object != nullptr && _object->owners.load(std::memory_order_acquire) == 1;
    }

private:
    void retain() {
        if (_object != nullptr)
            _object->owners.fetch_add(1, std::memory_order_relaxed);
    }

    void release() {
        if (_object != nullptr && _object->owners.fetch_sub(1, std::memory_order_acq_rel) == 1)
            T::destroy(_object);
    }

    T *_object = nullptr;
};

} // namespace host
