// SPDX-License-Identifier: Apache-2.0
#include "bundle_impl.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace host {

namespace {

constexpr std::size_t LONGEST_SCAN = 16;
constexpr std::size_t ROOM_SIZE = 512;

// addTo(entries, key) is called only when the key can be added.
template <typename AddTo>
int add(bundle *b, const char *key, AddTo addTo) {
    const std::string_view name = b != nullptr && key != nullptr ? key : "";
    if (name.empty() || name.size() >= MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (b->entries->find(name) != nullptr)
        return BUNDLE_ERROR_KEY_EXISTS;
    try {
        addTo(b->own(), name);
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

char *aligned(void *place) {
    constexpr std::uintptr_t ALIGNMENT = alignof(std::max_align_t);
    const auto number = reinterpret_cast<std::uintptr_t>(place);
    return static_cast<char *>(place) + (ALIGNMENT - number % ALIGNMENT) % ALIGNMENT;
}

// The entries, the bundle that they are made for, and its first copy.
constexpr std::size_t HOME_SIZE = sizeof(Entries) + 2 * sizeof(bundle);

bundle *bundleOf(Entries *entries) {
    return reinterpret_cast<bundle *>(entries + 1);
}

} // namespace

Entries::~Entries() {
    for (std::size_t i = 0; i < _count; i++)
        _entries[i].~keyval_t();
    if (_capacity > USUAL_COUNT)
        ::operator delete(_entries);
}

Entries::User Entries::createAt(Memory home, char *start, char *end) {
    return User(new (start) Entries(std::move(home), start + HOME_SIZE, end));
}

Entries::User Entries::create() {
    Memory home(HOME_SIZE + ROOM_SIZE);
    char *const start = home.bytes(), *const end = start + home.size();
    return createAt(std::move(home), start, end);
}

Entries::User Entries::createBehind(Bytes &bytes) {
    char *const start = aligned(bytes.end());
    char *const end = reinterpret_cast<char *>(bytes.data() + bytes.capacity());
    if (end - start < static_cast<std::ptrdiff_t>(HOME_SIZE))
        return create();
    bytes.close();
    return createAt(bytes.memory(), start, end);
}

Entries::User Entries::copy() const {
    User copy = create();
    copy->reserve(_count);
    if (_index)
        copy->_index = std::make_unique<Index>(*_index);
    copy->_marks = _marks;
    copy->setLimit();
    for (const keyval_t &entry : *this) {
        keyval_t *const to = new (&copy->_entries[copy->_count++]) keyval_t(entry);
        if (!to->memory)
            to->memory = _home;
    }
    return copy;
}

void Entries::removeUser() {
    if (_users.fetch_sub(1, std::memory_order_acq_rel) > 1)
        return;
    const Memory home = std::move(_home); // lasts until we are done here
    this->~Entries();
}

bundle *Entries::makeBundle(User created) noexcept {
    Entries *const entries = created.get();
    return new (bundleOf(entries)) bundle{std::move(created), true, {}};
}

bundle *Entries::makeCopy() noexcept {
    if (!_isCopied.exchange(true, std::memory_order_relaxed))
        return new (bundleOf(this) + 1) bundle{addUser(), true, {}};
    return new (std::nothrow) bundle{addUser(), false, {}};
}

void Entries::reserve(std::size_t count) {
    if (count <= _capacity)
        return;
    auto *const to = static_cast<keyval_t *>(::operator new(count * sizeof(keyval_t)));
    for (std::size_t i = 0; i < _count; i++) {
        new (&to[i]) keyval_t(std::move(_entries[i]));
        _entries[i].~keyval_t();
    }
    if (_capacity > USUAL_COUNT)
        ::operator delete(_entries);
    _entries = to;
    _capacity = count;
    setLimit();
}

void Entries::setLimit() {
    _limit = std::min(_capacity, indexed() + LONGEST_SCAN);
}

void Entries::makeRoom() {
    if (_count == _capacity)
        reserve(2 * _count);
    // An older entry, so that there is nothing to undo when no memory is left for the new one.
    if (_count - indexed() == LONGEST_SCAN) {
        if (!_index)
            _index = std::make_unique<Index>();
        _index->emplace(_entries[_index->size()].name(), _index->size());
    }
    setLimit();
}

// Where the next entry is to be made, which has this key. There must be room.
inline void *Entries::next(std::string_view key) {
    _marks |= markOf(key);
    return &_entries[_count++];
}

// Its value is to be filled in. One that is too large for a room has memory of its own.
keyval_t &Entries::addEmpty(int type, std::string_view key, std::size_t size) {
    if (_count == _limit)
        makeRoom();
    const std::size_t needed = size + key.size() + 1;
    char *value = type == BUNDLE_TYPE_STR ? _room : aligned(_room);
    Memory memory;
    if (value <= _roomEnd && needed <= static_cast<std::size_t>(_roomEnd - value)) {
        _room = value + needed;
        memory = _roomMemory;
    } else {
        memory = Memory(std::max(needed, ROOM_SIZE));
        value = memory.bytes();
        if (needed < ROOM_SIZE) {
            _roomMemory = memory;
            _room = value + needed;
            _roomEnd = value + memory.size();
        }
    }
    char *const name = value + size;
    std::memcpy(name, key.data(), key.size());
    name[key.size()] = '\0';
    return *new (next(key)) keyval_t{name,
                                     value,
                                     static_cast<std::uint32_t>(key.size()),
                                     static_cast<std::uint32_t>(size),
                                     std::move(memory),
                                     type};
}

void Entries::add(int type, std::string_view key, const void *value, std::size_t size) {
    std::memcpy(addEmpty(type, key, size).value, value, size);
}

void Entries::addText(std::string_view key, std::string_view text, const Memory &memory) {
    if (_count == _limit)
        makeRoom();
    new (next(key)) keyval_t{key.data(),
                             const_cast<char *>(text.data()),
                             static_cast<std::uint32_t>(key.size()),
                             static_cast<std::uint32_t>(text.size() + 1),
                             memory,
                             BUNDLE_TYPE_STR};
}

void Entries::addArray(std::string_view key, const std::vector<std::string_view> &texts) {
    const std::size_t pointers = (texts.size() + 1) * sizeof(char *);
    std::size_t size = pointers;
    for (const std::string_view text : texts)
        size += text.size() + 1;

    keyval_t &entry = addEmpty(BUNDLE_TYPE_STR_ARRAY, key, size);
    entry.size = static_cast<std::uint32_t>(texts.size());
    char *to = static_cast<char *>(entry.value) + pointers;
    for (std::size_t i = 0; i < texts.size(); i++) {
        entry.texts()[i] = to;
        to += texts[i].copy(to, texts[i].size());
        *to++ = '\0';
    }
    entry.texts()[texts.size()] = nullptr;
}

const keyval_t *Entries::search(std::string_view key) const {
    for (const keyval_t *entry = begin() + indexed(); entry != end(); entry++) {
        if (entry->keySize == key.size() && std::memcmp(entry->key, key.data(), key.size()) == 0)
            return entry;
    }
    if (!_index)
        return nullptr;
    const auto found = _index->find(key);
    return found != _index->end() ? &_entries[found->second] : nullptr;
}

void Entries::remove(const keyval_t *entry) noexcept {
    const auto at = static_cast<std::size_t>(entry - _entries);
    if (at < indexed()) {
        _index->erase(entry->name());
        for (auto &[key, position] : *_index)
            position -= position > at ? 1 : 0;
    }
    std::move(_entries + at + 1, _entries + _count, _entries + at);
    _entries[--_count].~keyval_t();
    setLimit();
}

} // namespace host

bundle *bundle_create(void) {
    try {
        return host::Entries::makeBundle(host::Entries::create());
    } catch (...) {
        return nullptr;
    }
}

int bundle_free(bundle *b) {
    if (b == nullptr)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    if (!b->isAtHome) {
        delete b;
        return BUNDLE_ERROR_NONE;
    }
    // Either of these may be what the bundle's place lasts as long as.
    const host::Memory home = std::move(b->home);
    const host::Entries::User entries = std::move(b->entries);
    b->~_bundle_t();
    return BUNDLE_ERROR_NONE;
}

bundle *bundle_dup(bundle *b_from) {
    return b_from != nullptr ? b_from->entries->makeCopy() : nullptr;
}

int bundle_add_str(bundle *b, const char *key, const char *str) {
    const std::size_t size = str != nullptr ? std::strlen(str) + 1 : 0;
    if (size == 0 || size > host::MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return host::add(b, key, [=](host::Entries &entries, std::string_view name) {
        entries.add(BUNDLE_TYPE_STR, name, str, size);
    });
}

int bundle_add_byte(bundle *b, const char *key, const void *byte, const size_t size) {
    if (byte == nullptr || size == 0 || size > host::MAX_SIZE)
        return BUNDLE_ERROR_INVALID_PARAMETER;
    return host::add(b, key, [=](host::Entries &entries, std::string_view name) {
        entries.add(BUNDLE_TYPE_BYTE, name, byte, size);
    });
}

int bundle_add_str_array(bundle *b, const char *key, const char **str_array, const int len) {
    if (len < 0 || (str_array == nullptr && len > 0))
        return BUNDLE_ERROR_INVALID_PARAMETER;
    std::size_t left = host::MAX_SIZE; // of what the texts and the pointers to them may need
    for (int i = 0; i < len; i++) {
        const char *const text = str_array[i];
        const std::size_t needed = text != nullptr ? std::strlen(text) + 1 + sizeof text : left;
        if (needed >= left)
            return BUNDLE_ERROR_INVALID_PARAMETER;
        left -= needed;
    }
    return host::add(b, key, [=](host::Entries &entries, std::string_view name) {
        entries.addArray(name, {str_array, str_array + len});
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
        host::Entries &entries = b->own();
        entries.remove(entries.find(key));
        return BUNDLE_ERROR_NONE;
    } catch (...) {
        return BUNDLE_ERROR_OUT_OF_MEMORY;
    }
}

void bundle_foreach(bundle *b, bundle_iterator_t iter, void *user_data) {
    if (b == nullptr || iter == nullptr)
        return;
    const auto entries = b->entries->addUser(); // what iter changes is a copy
    for (const keyval_t &entry : *entries)
        iter(entry.key, entry.type, &entry, user_data);
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
