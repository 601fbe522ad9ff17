// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include <bundle.h>

#include "memory.h"

// One entry. Copies of an entry share key and value, which never change.
struct keyval_t {
    std::string_view key; // a zero follows it
    void *value;          // of an array: char *[size + 1], the last one null
    std::size_t size;     // in bytes, a string's zero included; of an array: its elements
    int type;
    host::Memory memory; // holds key and value

    const char **texts() const { return static_cast<const char **>(value); }
};

namespace host {

// Largest encodable size. INT32_MAX, so that the sum of two sizes cannot overflow a 32-bit size_t.
constexpr std::size_t MAX_SIZE = INT32_MAX;

} // namespace host

// The entries in the order in which they were added. A bundle with many entries has an index: a tree,
// because a peer chooses the keys and could choose them to collide in a hash table.
//
// What changes a bundle throws std::bad_alloc; nothing has changed then. A key that is added must be new
// and not empty.
struct _bundle_t {
    const std::vector<keyval_t> &entries() const { return _entries; }
    const keyval_t *find(std::string_view key) const;

    // Key and value are copied. The value is aligned for any type, since callers keep structures in it.
    void add(int type, std::string_view key, const void *value, std::size_t size);
    void addArray(std::string_view key, const std::vector<std::string_view> &texts);
    // Key and text stay in the memory given, where a zero follows each of them.
    void addText(std::string_view key, std::string_view text, const host::Memory &memory);

    void remove(const keyval_t *entry) noexcept;
    void reserve(std::size_t count) { _entries.reserve(count); }

private:
    void append(keyval_t &&entry);
    void appendIndexed(keyval_t &&entry);
    char *makeEntry(int type, std::string_view key, std::size_t valueSize, std::size_t size);

    std::vector<keyval_t> _entries;
    std::map<std::string_view, std::size_t> _index; // empty while the bundle is small
};
