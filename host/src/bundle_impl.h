// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include <bundle.h>

#include "memory.h"

// One entry. Copies share key and value, which never change.
struct keyval_t {
    std::string_view key; // a zero follows it
    int type;
    std::uint32_t size; // in bytes, a string's zero included; of an array: its elements
    void *value;        // of an array: char *[size + 1], the last one null
    host::Memory memory;

    const char **texts() const { return static_cast<const char **>(value); }
};

namespace host {

// What makes a number fit its four bytes in an encoded bundle or parcel, and the sum of two a size
// also where that has four bytes itself.
constexpr std::size_t MAX_SIZE = INT32_MAX;

// The entries of one bundle, or of several equal ones: copied before one of them changes.
//
// All but the latest few are indexed, so a small bundle has no index. It is a tree, for a peer
// chooses the keys and could choose them to collide in a hash table.
//
// They stand in memory of their own, together with the bundle that they were made for and room for
// the first keys and values: a small bundle is one allocation. Each of the three lasts as long as
// somebody uses it, and the memory as long as one of them.
class Entries {
public:
    struct RemoveUser {
        void operator()(Entries *entries) const { entries->removeUser(); }
    };
    using User = std::unique_ptr<Entries, RemoveUser>;

    // These two throw std::bad_alloc.
    static User create();
    User copy() const;
    User addUser() {
        _users.fetch_add(1, std::memory_order_relaxed);
        return User(this);
    }
    // What former users, on other threads, read of them they have read before we change it.
    bool areShared() const { return _users.load(std::memory_order_acquire) > 1; }

    // The bundle that they were made for.
    static bundle *makeBundle(User created) noexcept;

    std::size_t count() const { return _count; }
    const keyval_t *begin() const { return _entries; }
    const keyval_t *end() const { return _entries + _count; }
    const keyval_t *find(std::string_view key) const;

    // What throws std::bad_alloc has changed nothing.
    void reserve(std::size_t count);
    void add(keyval_t &&entry); // its key must be new
    void remove(const keyval_t *entry) noexcept;

    // For entries to be added here. A byte value is aligned for any type, since callers keep
    // structures in it; key and value are copied.
    keyval_t make(int type, std::string_view key, std::string_view value);
    keyval_t makeArray(std::string_view key, const std::vector<std::string_view> &texts);

private:
    explicit Entries(const Memory &home);
    ~Entries();
    Entries(const Entries &) = delete;
    Entries &operator=(const Entries &) = delete;

    void removeUser();
    keyval_t makeEmpty(int type, std::string_view key, std::size_t size);

    static constexpr std::size_t USUAL_COUNT = 4;

    std::atomic<std::uint32_t> _users{1};
    Memory _home; // where this object stands
    std::size_t _count = 0;
    std::size_t _capacity = USUAL_COUNT;
    keyval_t *_entries = reinterpret_cast<keyval_t *>(_few);
    std::map<std::string_view, std::size_t> _index; // the first so many entries, by key
    Memory _room;                                   // small new entries share it
    std::size_t _roomUsed;
    std::size_t _roomSize;
    alignas(keyval_t) unsigned char _few[USUAL_COUNT * sizeof(keyval_t)];
};

} // namespace host

// One user of the entries.
struct _bundle_t {
    // What may be changed without any other user noticing. Throws std::bad_alloc.
    host::Entries &own() {
        if (entries->areShared())
            entries = entries->copy();
        return *entries;
    }

    host::Entries::User entries; // never null
    host::Memory home;           // none: the bundle stands in memory of its own
};
