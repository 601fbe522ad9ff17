// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include <bundle.h>

#include "memory.h"
#include "misuse.h"

// One entry. Copies of an entry share key and value, which never change.
struct keyval_t {
    keyval_t(std::string_view name, void *at, std::size_t length, int kind, host::Memory &&owner)
        : key(name), value(at), size(length), type(kind), memory(std::move(owner)) {}

    std::string_view key; // followed by a zero
    void *value;          // of an array: char *[size + 1], the last one null
    std::size_t size;     // in bytes, with a string's zero; of an array: number of elements
    int type;
    host::Memory memory; // holds key and value

    const char **texts() const { return static_cast<const char **>(value); }
};

namespace host {

// Largest encodable size. INT32_MAX, so that the sum of two sizes cannot overflow a 32-bit size_t.
constexpr std::size_t MAX_SIZE = INT32_MAX;

// Gives a vector room for a few elements inside the vector's owner. The vector must ask for exactly
// that many at first.
template <typename Value>
struct FewAllocator {
    using value_type = Value;
    static constexpr std::size_t FEW = 4;

    explicit FewAllocator(void *room) : few(static_cast<Value *>(room)) {}

    Value *allocate(std::size_t count) {
        return count == FEW ? few : std::allocator<Value>().allocate(count);
    }
    void deallocate(Value *values, std::size_t count) {
        if (values != few)
            std::allocator<Value>().deallocate(values, count);
    }
    bool operator==(const FewAllocator &other) const { return few == other.few; }
    bool operator!=(const FewAllocator &other) const { return few != other.few; }

    Value *few;
};

} // namespace host

// The entries in the order in which they were added. A bundle with many entries has an index. The
// index is a tree: a peer chooses the keys, and could make them collide in a hash table.
//
// Functions that change a bundle throw std::bad_alloc and then have changed nothing. A key that is
// added must be new and not empty.
struct _bundle_t {
    using Entries = std::vector<keyval_t, host::FewAllocator<keyval_t>>;
    using Index = std::map<std::string_view, std::size_t>;

    // flatten: the inlined reserve() takes 1 % of a round trip's instructions less.
    [[gnu::flatten]] _bundle_t() { _entries.reserve(FEW); }
    // The copy shares keys and values, unless the use of memory is checked.
    _bundle_t(const _bundle_t &other);

    // Logs the misuse, by the named function, of a bundle that has been freed.
    bool isAlive(const char *function) const { return _life.isAlive(function, "bundle"); }

    const Entries &entries() const { return _entries; }
    // Null when the bundle has no such key.
    const keyval_t *find(std::string_view key) const;

    // Copies key and value. The value is aligned for any type, since callers keep structures in it.
    void add(int type, std::string_view key, const void *value, std::size_t size);
    void addArray(std::string_view key, const std::vector<std::string_view> &texts);
    // Key and text stay in the given memory, where each of them must be followed by a zero.
    void addText(std::string_view key, std::string_view text, host::Memory memory);

    void remove(const keyval_t *entry) noexcept;
    void reserve(std::size_t count) {
        if (count > FEW)
            _entries.reserve(count);
    }

    int iterations = 0; // calls of bundle_foreach() in progress

private:
    static constexpr std::size_t FEW = host::FewAllocator<keyval_t>::FEW;

    void append(std::string_view key, void *value, std::size_t size, int type,
                host::Memory &&memory);
    void indexNewEntry();
    char *makeEntry(int type, std::string_view key, std::size_t valueSize, std::size_t size);

    alignas(keyval_t) char _few[FEW * sizeof(keyval_t)];
    Entries _entries{host::FewAllocator<keyval_t>(_few)};
    std::unique_ptr<Index> _index; // of all entries; null while they have been few
    host::LifeMark _life;
};
