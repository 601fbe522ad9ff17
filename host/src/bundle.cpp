// SPDX-License-Identifier: Apache-2.0
#include "bundle_impl.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace host {

namespace {

constexpr std::size_t LARGEST_SCAN = 16;
constexpr std::size_t USUAL_COUNT = 4;

keyval_t entryIn(Ref<Block> block, int type, char *key, std::string_view from) {
    std::memcpy(key, from.data(), from.size());
    key[from.size()] = '\0';
    keyval_t entry;
    entry.block = std::move(block);
    entry.key = {key, from.size()};
    entry.type = type;
    entry.value = entry.block->data();
    return entry;
}

const keyval_t *find(bundle *b, const char *key) {
    return b->entries ? b->entries->find(key) : nullptr;
}

// What may be changed without any other bundle, or a running bundle_foreach(), noticing.
Entries &ownEntries(bundle *b) {
    if (!b->entries) {
        b->entries = Ref<Entries>(new Entries);
        b->entries->reserve(USUAL_COUNT);
    } else if (!b->entries.isOnlyOwner()) {
        b->entries = Ref<Entries>(new Entries(*b->entries));
    }
    return *b->entries;
}

// Entry comes from make(), which is called only when the key can be added.
template <typename Make>
int add(bundle *b, const char *key, Make make) {
    const std::size_t length = std::strlen(key);
    if (length == 0 || length >= MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (find(b, key) != nullptr)
        return BUNDLE_ERROR_KEY_EXISTS;
    try {
        keyval_t entry = make(std::string_view(key, length));
        ownEntries(b).add(std::move(entry));
        return BUNDLE_ERROR_NONE;
    } catch (...) {
        return BUNDLE_ERROR_OUT_OF_MEMORY;
    }
}

bool areTexts(const char **texts, int count) {
    return std::all_of(texts, texts + count, [](const char *text) {
        return text != nullptr && std::strlen(text) < MAX_SIZE;
    });
}

} // namespace

Ref<Block> Block::make(std::size_t size) {
    return Ref<Block>(new (::operator new(sizeof(Block) + size)) Block);
}

void Block::destroy(Block *block) {
    block->~Block();
    ::operator delete(block);
}

keyval_t makeEntry(int type, std::string_view key, const void *value, std::size_t size) {
    Ref<Block> block = Block::make(size + key.size() + 1);
    char *data = block->data();
    std::memcpy(data, value, size);
    keyval_t entry = entryIn(std::move(block), type, data + size, key);
    entry.size = static_cast<std::uint32_t>(size);
    return entry;
}

keyval_t makeArrayEntry(std::string_view key, const char *const *texts, std::size_t count) {
    const std::size_t pointers = (count + 1) * sizeof(char *);
    std::size_t size = pointers + key.size() + 1;
    for (std::size_t i = 0; i < count; i++)
        size += std::strlen(texts[i]) + 1;

    Ref<Block> block = Block::make(size);
    auto copies = reinterpret_cast<char **>(block->data());
    char *end = block->data() + pointers;
    for (std::size_t i = 0; i < count; i++) {
        copies[i] = end;
        end = stpcpy(end, texts[i]) + 1;
    }
    copies[count] = nullptr;
    keyval_t entry = entryIn(std::move(block), BUNDLE_TYPE_STR_ARRAY, end, key);
    entry.size = static_cast<std::uint32_t>(count);
    return entry;
}

std::size_t Entries::position(std::string_view key) const {
    if (!_index.empty()) {
        auto found = _index.find(key);
        return found != _index.end() ? found->second : _slots.size();
    }
    auto found = std::find_if(_slots.begin(), _slots.end(),
                              [&](const keyval_t &slot) { return slot.block && slot.key == key; });
    return static_cast<std::size_t>(found - _slots.begin());
}

const keyval_t *Entries::find(std::string_view key) const {
    const std::size_t at = position(key);
    return at < _slots.size() ? &_slots[at] : nullptr;
}

void Entries::add(keyval_t entry) {
    _slots.push_back(std::move(entry));
    try {
        index(_slots.size() - 1);
    } catch (...) {
        _slots.pop_back();
        throw;
    }
}

void Entries::index(std::size_t slot) {
    if (!_index.empty()) {
        _index.emplace(_slots[slot].key, slot);
    } else if (count() > LARGEST_SCAN) {
        std::map<std::string_view, std::size_t> all;
        for (std::size_t i = 0; i < _slots.size(); i++) {
            if (_slots[i].block)
                all.emplace(_slots[i].key, i);
        }
        _index.swap(all);
    }
}

void Entries::remove(std::string_view key) noexcept {
    const std::size_t at = position(key);
    _index.erase(key); // first: its key stands in the block
    _slots[at] = {};
    _holes++;
    if (_holes > count())
        closeHoles();
}

void Entries::closeHoles() noexcept {
    auto isHole = [](const keyval_t &slot) { return !slot.block; };
    _slots.erase(std::remove_if(_slots.begin(), _slots.end(), isHole), _slots.end());
    _holes = 0;
    if (_index.empty())
        return;
    for (std::size_t i = 0; i < _slots.size(); i++)
        _index.find(_slots[i].key)->second = i;
}

} // namespace host

bundle *bundle_create(void) {
    return new (std::nothrow) bundle;
}

int bundle_free(bundle *b) {
    if (b == nullptr)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    delete b;
    return BUNDLE_ERROR_NONE;
}

bundle *bundle_dup(bundle *b_from) {
    return b_from != nullptr ? new (std::nothrow) bundle(*b_from) : nullptr;
}

int bundle_add_str(bundle *b, const char *key, const char *str) {
    if (b == nullptr || key == nullptr || str == nullptr)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    const std::size_t size = std::strlen(str) + 1;
    if (size > host::MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return host::add(b, key, [=](std::string_view name) {
        return host::makeEntry(BUNDLE_TYPE_STR, name, str, size);
    });
}

int bundle_add_byte(bundle *b, const char *key, const void *byte, const size_t size) {
    if (b == nullptr || key == nullptr || byte == nullptr || size == 0 || size > host::MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return host::add(b, key, [=](std::string_view name) {
        return host::makeEntry(BUNDLE_TYPE_BYTE, name, byte, size);
    });
}

int bundle_add_str_array(bundle *b, const char *key, const char **str_array, const int len) {
    if (b == nullptr || key == nullptr || len < 0 || (str_array == nullptr && len > 0))
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (!host::areTexts(str_array, len))
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return host::add(b, key, [=](std::string_view name) {
        return host::makeArrayEntry(name, str_array, static_cast<std::size_t>(len));
    });
}

int bundle_get_str(bundle *b, const char *key, char **str) {
    if (b == nullptr || key == nullptr || str == nullptr)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    const keyval_t *entry = host::find(b, key);
    if (entry == nullptr)
        return BUNDLE_ERROR_KEY_NOT_AVAILABLE;
    if (entry->type != BUNDLE_TYPE_STR)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    *str = static_cast<char *>(entry->value);
    return BUNDLE_ERROR_NONE;
}

int bundle_get_byte(bundle *b, const char *key, void **byte, size_t *size) {
    if (b == nullptr || key == nullptr || byte == nullptr || size == nullptr)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    const keyval_t *entry = host::find(b, key);
    if (entry == nullptr)
        return BUNDLE_ERROR_KEY_NOT_AVAILABLE;
    if (entry->type != BUNDLE_TYPE_BYTE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    *byte = entry->value;
    *size = entry->size;
    return BUNDLE_ERROR_NONE;
}

const char **bundle_get_str_array(bundle *b, const char *key, int *len) {
    if (b == nullptr || key == nullptr || len == nullptr)
        return nullptr;
    const keyval_t *entry = host::find(b, key);
    if (entry == nullptr || entry->type != BUNDLE_TYPE_STR_ARRAY)
        return nullptr;
    *len = static_cast<int>(entry->size);
    return entry->texts();
}

int bundle_get_count(bundle *b) {
    return b != nullptr && b->entries ? static_cast<int>(b->entries->count()) : 0;
}

int bundle_get_type(bundle *b, const char *key) {
    const keyval_t *entry = b != nullptr && key != nullptr ? host::find(b, key) : nullptr;
    return entry != nullptr ? entry->type : BUNDLE_TYPE_NONE;
}

int bundle_del(bundle *b, const char *key) {
    if (b == nullptr || key == nullptr)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (host::find(b, key) == nullptr)
        return BUNDLE_ERROR_KEY_NOT_AVAILABLE;
    try {
        host::ownEntries(b).remove(key);
        return BUNDLE_ERROR_NONE;
    } catch (...) {
        return BUNDLE_ERROR_OUT_OF_MEMORY;
    }
}

void bundle_foreach(bundle *b, bundle_iterator_t iter, void *user_data) {
    if (b == nullptr || iter == nullptr || !b->entries)
        return;
    // A second owner: what iter changes is a copy.
    const host::Ref<host::Entries> entries = b->entries;
    entries->forEach(
        [=](const keyval_t &entry) { iter(entry.key.data(), entry.type, &entry, user_data); });
}

int bundle_keyval_get_type(bundle_keyval_t *kv) {
    return kv != nullptr ? kv->type : BUNDLE_TYPE_NONE;
}

int bundle_keyval_type_is_array(bundle_keyval_t *kv) {
    return kv != nullptr && kv->type == BUNDLE_TYPE_STR_ARRAY ? 1 : 0;
}

int bundle_keyval_get_basic_val(bundle_keyval_t *kv, void **val, size_t *size) {
    if (kv == nullptr || val == nullptr || size == nullptr || kv->type == BUNDLE_TYPE_STR_ARRAY)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    *val = kv->value;
    *size = kv->size;
    return BUNDLE_ERROR_NONE;
}
