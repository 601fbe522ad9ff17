// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include <bundle.h>

#include "ref.h"

namespace host {

// Memory that keys and values stand in. Never changed once an entry refers to it, so any number of
// entries, bundles and threads may.
struct alignas(std::max_align_t) Block : Shared {
    static Ref<Block> make(std::size_t size); // throws std::bad_alloc
    static void destroy(Block *block);

    char *data() { return reinterpret_cast<char *>(this + 1); }
};

} // namespace host

// One entry. Copies share key and value.
struct keyval_t {
    host::Ref<host::Block> block; // null: the entry has been removed
    std::string_view key;         // a zero follows it
    int type = BUNDLE_TYPE_NONE;
    std::uint32_t size = 0; // in bytes, a string's zero included; of an array: its elements
    void *value = nullptr;  // of an array: char *[size + 1], the last one null

    const char *text() const { return static_cast<const char *>(value); }
    const char **texts() const { return static_cast<const char **>(value); }
};

namespace host {

// What makes a number fit its four bytes in an encoded bundle or parcel.
constexpr std::size_t MAX_SIZE = UINT32_MAX;

// Both copy key and value, which must be valid, into a block of the entry's own; aligned for any
// type, since callers keep structures in byte values. Throw std::bad_alloc.
keyval_t makeEntry(int type, std::string_view key, const void *value, std::size_t size);
keyval_t makeArrayEntry(std::string_view key, const char *const *texts, std::size_t count);

// The entries of one bundle, or of several equal ones: it is copied before one of them changes.
//
// A removed entry leaves a hole, closed once holes outnumber entries, so that emptying a large
// bundle key by key stays cheap. Keys are indexed only when there are many; a tree, for a peer
// chooses the keys and could choose them to collide in a hash table.
class Entries : public Shared {
public:
    static void destroy(Entries *entries) { delete entries; }

    void reserve(std::size_t count) { _slots.reserve(count); }
    const keyval_t *find(std::string_view key) const;
    std::size_t count() const { return _slots.size() - _holes; }

    void add(keyval_t entry); // its key must be new; unchanged when this throws std::bad_alloc
    void remove(std::string_view key) noexcept; // its key must be there

    template <typename Visitor>
    void forEach(Visitor visit) const {
        for (const keyval_t &slot : _slots) {
            if (slot.block)
                visit(slot);
        }
    }

private:
    std::size_t position(std::string_view key) const; // of no entry: _slots.size()
    void index(std::size_t slot);
    void closeHoles() noexcept;

    std::vector<keyval_t> _slots;
    std::size_t _holes = 0;
    std::map<std::string_view, std::size_t> _index; // empty while a scan will do
};

} // namespace host

struct _bundle_t {
    host::Ref<host::Entries> entries; // null: empty
};
