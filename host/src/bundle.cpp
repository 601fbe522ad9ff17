// SPDX-License-Identifier: Apache-2.0
#include "bundle_impl.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace host {

namespace {

constexpr std::size_t LARGEST_WITHOUT_INDEX = 16;

// Whether the named function may use b. Logs the misuse of a bundle that has been freed.
bool isUsable(const bundle *b, const char *function) {
    return b && b->isAlive(function);
}

// Calls addTo(key) if the key can be added.
template <typename AddTo>
int add(const char *function, bundle *b, const char *key, AddTo addTo) {
    const std::string_view name = isUsable(b, function) && key ? key : "";
    if (name.empty() || name.size() >= MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (b->find(name))
        return BUNDLE_ERROR_KEY_EXISTS;
    try {
        addTo(name);
        return BUNDLE_ERROR_NONE;
    } catch (...) {
        return BUNDLE_ERROR_OUT_OF_MEMORY;
    }
}

const keyval_t *find(const char *function, bundle *b, const char *key) {
    return isUsable(b, function) && key ? b->find(key) : nullptr;
}

int get(const char *function, bundle *b, const char *key, int type, const keyval_t *&entry) {
    if (!isUsable(b, function) || !key)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    entry = b->find(key);
    if (entry && entry->type != type)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return entry ? BUNDLE_ERROR_NONE : BUNDLE_ERROR_KEY_NOT_AVAILABLE;
}

} // namespace

} // namespace host

_bundle_t::_bundle_t(const _bundle_t &other) {
    _entries.reserve(std::max(other._entries.size(), FEW));
    if (!host::isMemoryChecked()) {
        _entries.insert(_entries.end(), other._entries.begin(), other._entries.end());
        if (other._index)
            _index = std::make_unique<Index>(*other._index);
        return;
    }
    for (const keyval_t &entry : other._entries) {
        if (entry.type == BUNDLE_TYPE_STR_ARRAY)
            addArray(entry.key, {entry.texts(), entry.texts() + entry.size});
        else
            add(entry.type, entry.key, entry.value, entry.size);
    }
}

const keyval_t *_bundle_t::find(std::string_view key) const {
    if (_index) {
        const auto found = _index->find(key);
        return found != _index->end() ? &_entries[found->second] : nullptr;
    }
    for (const keyval_t &entry : _entries)
        if (entry.key == key)
            return &entry;
    return nullptr;
}

void _bundle_t::append(std::string_view key, void *value, std::size_t size, int type,
                       host::Memory &&memory) {
    _entries.emplace_back(key, value, size, type, std::move(memory));
    if (_index || _entries.size() > host::LARGEST_WITHOUT_INDEX)
        indexNewEntry();
}

// Removes the new entry again if memory runs out.
void _bundle_t::indexNewEntry() {
    try {
        if (!_index)
            _index = std::make_unique<Index>();
        for (std::size_t i = _index->size(); i < _entries.size(); ++i)
            _index->emplace(_entries[i].key, i);
    } catch (...) {
        _entries.pop_back();
        if (_index && _index->size() < _entries.size())
            _index.reset();
        throw;
    }
}

// Adds an entry with a value of valueSize bytes, and returns where the value is to be written.
char *_bundle_t::makeEntry(int type, std::string_view key, std::size_t valueSize,
                           std::size_t size) {
    host::Memory memory(valueSize + key.size() + 1);
    char *const value = memory.bytes(), *const name = value + valueSize;
    std::memcpy(name, key.data(), key.size());
    name[key.size()] = '\0';
    append({name, key.size()}, value, size, type, std::move(memory));
    return value;
}

void _bundle_t::add(int type, std::string_view key, const void *value, std::size_t size) {
    std::memcpy(makeEntry(type, key, size, size), value, size);
}

void _bundle_t::addText(std::string_view key, std::string_view text, host::Memory memory) {
    append(key, const_cast<char *>(text.data()), text.size() + 1, BUNDLE_TYPE_STR,
           std::move(memory));
}

void _bundle_t::addArray(std::string_view key, const std::vector<std::string_view> &texts) {
    const std::size_t pointers = (texts.size() + 1) * sizeof(char *);
    std::size_t size = pointers;
    for (const std::string_view text : texts)
        size += text.size() + 1;
    char *const value = makeEntry(BUNDLE_TYPE_STR_ARRAY, key, size, texts.size());
    auto **const elements = reinterpret_cast<char **>(value);
    char *to = value + pointers;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        elements[i] = to;
        to += texts[i].copy(to, texts[i].size());
        *to++ = '\0';
    }
    elements[texts.size()] = nullptr;
}

void _bundle_t::remove(const keyval_t *entry) noexcept {
    const auto at = static_cast<std::size_t>(entry - _entries.data());
    if (_index) {
        _index->erase(entry->key);
        for (auto &[key, position] : *_index)
            position -= position > at ? 1 : 0;
    }
    _entries.erase(_entries.begin() + (entry - _entries.data()));
}

bundle *bundle_create(void) {
    return new (std::nothrow) bundle;
}

int bundle_free(bundle *b) {
    if (!host::isUsable(b, __func__))
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (b->iterations > 0) {
        host::misuse("bundle_free() is called inside bundle_foreach() of the same bundle and does "
                     "nothing: free the bundle after bundle_foreach()");
        return BUNDLE_ERROR_INVALID_PARAMETER;
    }
    delete b;
    return BUNDLE_ERROR_NONE;
}

bundle *bundle_dup(bundle *b_from) {
    try {
        return host::isUsable(b_from, __func__) ? new bundle(*b_from) : nullptr;
    } catch (...) {
        return nullptr;
    }
}

int bundle_add_str(bundle *b, const char *key, const char *str) {
    const std::size_t size = str ? std::strlen(str) + 1 : 0;
    if (size == 0 || size > host::MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return host::add(__func__, b, key,
                     [=](std::string_view name) { b->add(BUNDLE_TYPE_STR, name, str, size); });
}

int bundle_add_byte(bundle *b, const char *key, const void *byte, const size_t size) {
    if (!byte || size == 0 || size > host::MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return host::add(__func__, b, key,
                     [=](std::string_view name) { b->add(BUNDLE_TYPE_BYTE, name, byte, size); });
}

int bundle_add_str_array(bundle *b, const char *key, const char **str_array, const int len) {
    if (len < 0 || (!str_array && len > 0))
        return BUNDLE_ERROR_INVALID_PARAMETER;
    std::size_t left = host::MAX_SIZE; // for the texts and the pointers to them
    for (int i = 0; i < len; ++i) {
        const char *const text = str_array[i];
        const std::size_t needed = text ? std::strlen(text) + 1 + sizeof text : left;
        if (needed >= left)
            return BUNDLE_ERROR_INVALID_PARAMETER;
        left -= needed;
    }
    return host::add(__func__, b, key, [=](std::string_view name) {
        b->addArray(name, {str_array, str_array + len});
    });
}

int bundle_get_str(bundle *b, const char *key, char **str) {
    const keyval_t *entry = nullptr;
    const int result = host::get(__func__, b, key, BUNDLE_TYPE_STR, entry);
    if (!str)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (result == BUNDLE_ERROR_NONE)
        *str = static_cast<char *>(entry->value);
    return result;
}

int bundle_get_byte(bundle *b, const char *key, void **byte, size_t *size) {
    const keyval_t *entry = nullptr;
    const int result = host::get(__func__, b, key, BUNDLE_TYPE_BYTE, entry);
    if (!byte || !size)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return result == BUNDLE_ERROR_NONE
               ? bundle_keyval_get_basic_val(const_cast<keyval_t *>(entry), byte, size)
               : result;
}

const char **bundle_get_str_array(bundle *b, const char *key, int *len) {
    const keyval_t *entry = nullptr;
    if (host::get(__func__, b, key, BUNDLE_TYPE_STR_ARRAY, entry) != BUNDLE_ERROR_NONE || !len)
        return nullptr;
    *len = static_cast<int>(entry->size);
    return entry->texts();
}

int bundle_get_count(bundle *b) {
    return host::isUsable(b, __func__) ? static_cast<int>(b->entries().size()) : 0;
}

int bundle_get_type(bundle *b, const char *key) {
    const keyval_t *entry = host::find(__func__, b, key);
    return entry ? entry->type : BUNDLE_TYPE_NONE;
}

int bundle_del(bundle *b, const char *key) {
    if (!host::isUsable(b, __func__) || !key)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    const keyval_t *const entry = b->find(key);
    if (!entry)
        return BUNDLE_ERROR_KEY_NOT_AVAILABLE;
    b->remove(entry);
    return BUNDLE_ERROR_NONE;
}

void bundle_foreach(bundle *b, bundle_iterator_t iter, void *user_data) {
    if (!host::isUsable(b, __func__) || !iter)
        return;
    ++b->iterations;
    for (std::size_t i = 0; i < b->entries().size(); ++i) {
        const keyval_t entry = b->entries()[i]; // stays valid if iter removes it from the bundle
        iter(entry.key.data(), entry.type, &entry, user_data);
    }
    --b->iterations;
}

int bundle_keyval_get_type(bundle_keyval_t *kv) {
    return kv ? kv->type : BUNDLE_TYPE_NONE;
}

int bundle_keyval_type_is_array(bundle_keyval_t *kv) {
    return bundle_keyval_get_type(kv) == BUNDLE_TYPE_STR_ARRAY ? 1 : 0;
}

int bundle_keyval_get_basic_val(bundle_keyval_t *kv, void **val, size_t *size) {
    if (!kv || !val || !size || kv->type == BUNDLE_TYPE_STR_ARRAY)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    *val = kv->value;
    *size = kv->size;
    return BUNDLE_ERROR_NONE;
}
