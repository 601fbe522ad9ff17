// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>
#include <vector>

#include <bundle.h>

namespace host {

// Keys and values stand in it. Never changed once an entry refers to it, so any number of entries,
// bundles and threads may.
using Memory = std::shared_ptr<char>;

} // namespace host

// One entry. Copies share key and value.
struct keyval_t {
    std::string_view key; // a zero follows it
    int type;
    std::uint32_t size; // in bytes, a string's zero included; of an array: its elements
    void *value;        // of an array: char *[size + 1], the last one null
    host::Memory memory;

    const char **texts() const { return static_cast<const char **>(value); }
};

namespace host {

// What makes a number fit its four bytes in an encoded bundle or parcel.
constexpr std::size_t MAX_SIZE = UINT32_MAX;

// The entries of one bundle, or of several equal ones: copied before one of them changes.
//
// All but the latest few are indexed, so a small bundle has no index. It is a tree, for a peer
// chooses the keys and could choose them to collide in a hash table.
class Entries {
public:
    Entries() = default;
    Entries(const Entries &other) : _entries(other._entries), _index(other._index) {}
    Entries &operator=(const Entries &) = delete;

    std::size_t count() const { return _entries.size(); }
    auto begin() const { return _entries.begin(); }
    auto end() const { return _entries.end(); }
    const keyval_t *find(std::string_view key) const;

    // What throws std::bad_alloc has changed nothing.
    void reserve(std::size_t count) { _entries.reserve(count); }
    void add(keyval_t &&entry); // its key must be new
    void remove(const keyval_t *entry) noexcept;

    // For entries to be added here. Aligned for any type, since callers keep structures in byte
    // values; key and value are copied.
    Memory allocate(std::size_t size);
    keyval_t make(int type, std::string_view key, std::string_view value);
    keyval_t makeArray(std::string_view key, const std::vector<std::string_view> &texts);

private:
    keyval_t makeEmpty(int type, std::string_view key, std::size_t size);

    std::vector<keyval_t> _entries;
    std::map<std::string_view, std::size_t> _index; // the first so many entries, by key
    Memory _room;                                   // small new entries share it
    std::size_t _roomLeft = 0;                      // at its end; not copied: it has one user
};

} // namespace host

struct _bundle_t {
    std::shared_ptr<host::Entries> entries; // never null
};
