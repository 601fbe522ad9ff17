// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include <bundle.h>

#include "memory.h"

// One entry. Copies share key and value, which never change.
struct keyval_t {
    const char *key; // a zero follows it
    void *value;     // of an array: char *[size + 1], the last one null
    std::uint32_t keySize;
    std::uint32_t size;  // in bytes, a string's zero included; of an array: its elements
    host::Memory memory; // where both stand; none: in the home of the entries
    int type;

    std::string_view name() const { return {key, keySize}; }
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
// They stand in their home, memory that may be a parcel's as well, together with the bundle that
// they were made for, the first copy of it, and room for the first keys and values: a small bundle
// is one allocation, or none.
class Entries {
public:
    struct RemoveUser {
        void operator()(Entries *entries) const { entries->removeUser(); }
    };
    using User = std::unique_ptr<Entries, RemoveUser>;

    // These three throw std::bad_alloc.
    static User create();
    static User createBehind(Bytes &bytes); // in the same memory, if that has room
    User copy() const;
    User addUser() {
        _users.fetch_add(1, std::memory_order_relaxed);
        return User(this);
    }
    // What former users, on other threads, read of them they have read before we change it.
    bool areShared() const { return _users.load(std::memory_order_acquire) > 1; }

    // The bundle that they were made for.
    static bundle *makeBundle(User created) noexcept;
    // Another one that has them. Null when memory ran out.
    bundle *makeCopy() noexcept;

    const Memory &home() const { return _home; }
    std::size_t count() const { return _count; }
    const keyval_t *begin() const { return _entries; }
    const keyval_t *end() const { return _entries + _count; }
    const keyval_t *find(std::string_view key) const {
        return (_marks & markOf(key)) != 0 ? search(key) : nullptr;
    }

    // These throw std::bad_alloc; nothing has changed then. A key that is added must be new.
    void reserve(std::size_t count);
    // Key and value are copied. A byte value is aligned for any type, since callers keep structures
    // in it.
    void add(int type, std::string_view key, const void *value, std::size_t size);
    void addArray(std::string_view key, const std::vector<std::string_view> &texts);
    // Both stay in the memory given, which must have a zero behind each; none: at home.
    void addText(std::string_view key, std::string_view text, const Memory &memory);

    void remove(const keyval_t *entry) noexcept;

private:
    using Index = std::map<std::string_view, std::size_t>;

    Entries(Memory home, char *room, char *roomEnd)
        : _home(std::move(home)), _room(room), _roomEnd(roomEnd) {}
    ~Entries();
    Entries(const Entries &) = delete;
    Entries &operator=(const Entries &) = delete;

    // One bit of many, so that most keys that are not here need not be compared with any.
    static std::uint64_t markOf(std::string_view key) {
        const auto last = static_cast<unsigned char>(key.empty() ? 0 : key.back());
        return std::uint64_t{1} << ((last + 7 * key.size()) % 64);
    }

    static User createAt(Memory home, char *start, char *end);
    void removeUser();
    const keyval_t *search(std::string_view key) const;
    std::size_t indexed() const { return _index ? _index->size() : 0; }
    void setLimit();
    void makeRoom();
    void *next(std::string_view key);
    keyval_t &addEmpty(int type, std::string_view key, std::size_t size);

    static constexpr std::size_t USUAL_COUNT = 4;

    std::atomic<std::uint32_t> _users{1};
    std::atomic<bool> _isCopied{false}; // the place of the first copy is taken
    Memory _home;                       // where this object stands
    std::size_t _count = 0;
    std::size_t _capacity = USUAL_COUNT;
    std::size_t _limit = USUAL_COUNT; // of the count, before there is something to be done
    keyval_t *_entries = reinterpret_cast<keyval_t *>(_few);
    std::uint64_t _marks = 0;
    std::unique_ptr<Index> _index; // the first so many entries, by key
    char *_room;                   // small new entries share it
    char *_roomEnd;
    Memory _roomMemory; // none: at home
    alignas(keyval_t) unsigned char _few[USUAL_COUNT * sizeof(keyval_t)];
};

} // namespace host

// One user of the entries.
struct _bundle_t {
    // What may be changed without any other user noticing. Throws std::bad_alloc.
    host::Entries &own() {
        if (entries->areShared()) {
            host::Entries::User copy = entries->copy();
            if (isAtHome && !home)
                home = entries->home(); // which may be left by its entries now
            entries = std::move(copy);
        }
        return *entries;
    }

    host::Entries::User entries; // never null
    bool isAtHome;               // it stands in the home of the entries that it began with
    host::Memory home;           // that one; none while it has these entries
};
