// SPDX-License-Identifier: Apache-2.0
#include "bundle_impl.h"

#include <atomic>
#include <cstring>
#include <new>

namespace host {

namespace {

constexpr std::size_t LONGEST_SCAN = 16;
constexpr std::size_t USUAL_COUNT = 4;
constexpr std::size_t ROOM_SIZE = 512;

struct alignas(std::max_align_t) Room {
    Room() {} // not zeroed
    char bytes[ROOM_SIZE];
};

// What may be changed without any other bundle, or a running bundle_foreach(), noticing.
Entries &ownEntries(bundle *b) {
    if (b->entries.use_count() > 1)
        b->entries = std::make_shared<Entries>(*b->entries);
    // What former owners, on other threads, read of the entries they have read before we change it.
    std::atomic_thread_fence(std::memory_order_acquire);
    return *b->entries;
}

// The entry comes from make(), which is called only when the key can be added.
template <typename Make>
int add(bundle *b, const char *key, Make make) {
    const std::string_view name = b != nullptr && key != nullptr ? key : "";
    if (name.empty() || name.size() >= MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (b->entries->find(name) != nullptr)
        return BUNDLE_ERROR_KEY_EXISTS;
    try {
        Entries &entries = ownEntries(b);
        entries.add(make(entries, name));
        return BUNDLE_ERROR_NONE;
    } catch (...) {
        return BUNDLE_ERROR_OUT_OF_MEMORY;
    }
}

const keyval_t *find(bundle *b, const char *key) {
    return b != nullptr && key != nullptr ? b->entries->find(key) : nullptr;
}

int get(bundle *b, const char *key, int type, const keyval_t *&entry) {
    entry = find(b, key);
    if (b == nullptr || key == nullptr || (entry != nullptr && entry->type != type))
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return entry != nullptr ? BUNDLE_ERROR_NONE : BUNDLE_ERROR_KEY_NOT_AVAILABLE;
}

} // namespace

Memory Entries::allocate(std::size_t size) {
    size = (size + alignof(Room) - 1) / alignof(Room) * alignof(Room);
    if (size > ROOM_SIZE)
        return Memory(new char[size], std::default_delete<char[]>());
    if (!_room || size > _roomLeft) {
        auto room = std::make_shared<Room>();
        _room = Memory(room, room->bytes);
        _roomLeft = ROOM_SIZE;
    }
    Memory taken(_room, _room.get() + (ROOM_SIZE - _roomLeft));
    _roomLeft -= size;
    return taken;
}

// Its value is to be filled in.
keyval_t Entries::makeEmpty(int type, std::string_view key, std::size_t size) {
    Memory memory = allocate(size + key.size() + 1);
    char *value = memory.get();
    char *name = value + size;
    name[key.copy(name, key.size())] = '\0';
    return {{name, key.size()}, type, static_cast<std::uint32_t>(size), value, std::move(memory)};
}

keyval_t Entries::make(int type, std::string_view key, std::string_view value) {
    keyval_t entry = makeEmpty(type, key, value.size());
    value.copy(static_cast<char *>(entry.value), value.size());
    return entry;
}

keyval_t Entries::makeArray(std::string_view key, const std::vector<std::string_view> &texts) {
    const std::size_t pointers = (texts.size() + 1) * sizeof(char *);
    std::size_t size = pointers;
    for (const std::string_view text : texts)
        size += text.size() + 1;

    keyval_t entry = makeEmpty(BUNDLE_TYPE_STR_ARRAY, key, size);
    entry.size = static_cast<std::uint32_t>(texts.size());
    char *to = static_cast<char *>(entry.value) + pointers;
    for (std::size_t i = 0; i < texts.size(); i++) {
        entry.texts()[i] = to;
        to += texts[i].copy(to, texts[i].size());
        *to++ = '\0';
    }
    entry.texts()[texts.size()] = nullptr;
    return entry;
}

const keyval_t *Entries::find(std::string_view key) const {
    for (std::size_t i = _index.size(); i < _entries.size(); i++) {
        if (_entries[i].key == key)
            return &_entries[i];
    }
    const auto found = _index.find(key);
    return found != _index.end() ? &_entries[found->second] : nullptr;
}

void Entries::add(keyval_t &&entry) {
    // An older entry, so that there is nothing to undo when no memory is left for the new one.
    if (_entries.size() - _index.size() == LONGEST_SCAN)
        _index.emplace(_entries[_index.size()].key, _index.size());
    _entries.push_back(std::move(entry));
}

void Entries::remove(const keyval_t *entry) noexcept {
    const auto at = static_cast<std::size_t>(entry - _entries.data());
    if (at < _index.size()) {
        _index.erase(entry->key);
        for (auto &[key, position] : _index)
            position -= position > at ? 1 : 0;
    }
    _entries.erase(_entries.begin() + static_cast<std::ptrdiff_t>(at));
}

} // namespace host

bundle *bundle_create(void) {
    try {
        auto entries = std::make_shared<host::Entries>();
        entries->reserve(host::USUAL_COUNT);
        return new bundle{std::move(entries)};
    } catch (...) {
        return nullptr;
    }
}

int bundle_free(bundle *b) {
    delete b;
    return b != nullptr ? BUNDLE_ERROR_NONE : BUNDLE_ERROR_INVALID_PARAMETER;
}

bundle *bundle_dup(bundle *b_from) {
    return b_from != nullptr ? new (std::nothrow) bundle(*b_from) : nullptr;
}

int bundle_add_str(bundle *b, const char *key, const char *str) {
    const std::size_t size = str != nullptr ? std::strlen(str) + 1 : 0;
    if (size == 0 || size > host::MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return host::add(b, key, [=](host::Entries &entries, std::string_view name) {
        return entries.make(BUNDLE_TYPE_STR, name, {str, size});
    });
}

int bundle_add_byte(bundle *b, const char *key, const void *byte, const size_t size) {
    if (byte == nullptr || size == 0 || size > host::MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return host::add(b, key, [=](host::Entries &entries, std::string_view name) {
        return entries.make(BUNDLE_TYPE_BYTE, name, {static_cast<const char *>(byte), size});
    });
}

int bundle_add_str_array(bundle *b, const char *key, const char **str_array, const int len) {
    if (len < 0 || (str_array == nullptr && len > 0))
        return BUNDLE_ERROR_INVALID_PARAMETER;
    for (int i = 0; i < len; i++) {
        if (str_array[i] == nullptr || std::strlen(str_array[i]) >= host::MAX_SIZE)
            return BUNDLE_ERROR_INVALID_PARAMETER;
    }
    return host::add(b, key, [=](host::Entries &entries, std::string_view name) {
        return entries.makeArray(name, {str_array, str_array + len});
    });
}

int bundle_get_str(bundle *b, const char *key, char **str) {
    const keyval_t *entry = nullptr;
    const int result = host::get(b, key, BUNDLE_TYPE_STR, entry);
    if (str == nullptr)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (result == BUNDLE_ERROR_NONE)
        *str = static_cast<char *>(entry->value);
    return result;
}

int bundle_get_byte(bundle *b, const char *key, void **byte, size_t *size) {
    const keyval_t *entry = nullptr;
    const int result = host::get(b, key, BUNDLE_TYPE_BYTE, entry);
    if (byte == nullptr || size == nullptr)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return result == BUNDLE_ERROR_NONE
               ? bundle_keyval_get_basic_val(const_cast<keyval_t *>(entry), byte, size)
               : result;
}

const char **bundle_get_str_array(bundle *b, const char *key, int *len) {
    const keyval_t *entry = nullptr;
    if (host::get(b, key, BUNDLE_TYPE_STR_ARRAY, entry) != BUNDLE_ERROR_NONE || len == nullptr)
        return nullptr;
    *len = static_cast<int>(entry->size);
    return entry->texts();
}

int bundle_get_count(bundle *b) {
    return b != nullptr ? static_cast<int>(b->entries->count()) : 0;
}

int bundle_get_type(bundle *b, const char *key) {
    const keyval_t *entry = host::find(b, key);
    return entry != nullptr ? entry->type : BUNDLE_TYPE_NONE;
}

int bundle_del(bundle *b, const char *key) {
    if (b == nullptr || key == nullptr)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (host::find(b, key) == nullptr)
        return BUNDLE_ERROR_KEY_NOT_AVAILABLE;
    try {
        host::Entries &entries = host::ownEntries(b);
        entries.remove(entries.find(key));
        return BUNDLE_ERROR_NONE;
    } catch (...) {
        return BUNDLE_ERROR_OUT_OF_MEMORY;
    }
}

void bundle_foreach(bundle *b, bundle_iterator_t iter, void *user_data) {
    if (b == nullptr || iter == nullptr)
        return;
    const auto entries = b->entries; // a second owner: what iter changes is a copy
    for (const keyval_t &entry : *entries)
        iter(entry.key.data(), entry.type, &entry, user_data);
}

int bundle_keyval_get_type(bundle_keyval_t *kv) {
    return kv != nullptr ? kv->type : BUNDLE_TYPE_NONE;
}

int bundle_keyval_type_is_array(bundle_keyval_t *kv) {
    return bundle_keyval_get_type(kv) == BUNDLE_TYPE_STR_ARRAY ? 1 : 0;
}

int bundle_keyval_get_basic_val(bundle_keyval_t *kv, void **val, size_t *size) {
    if (kv == nullptr || val == nullptr || size == nullptr || kv->type == BUNDLE_TYPE_STR_ARRAY)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    *val = kv->value;
    *size = kv->size;
    return BUNDLE_ERROR_NONE;
}
