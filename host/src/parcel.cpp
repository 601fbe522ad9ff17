// SPDX-License-Identifier: Apache-2.0
#include "parcel.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include <rpc-port-parcel.h>

#include "bundle_impl.h"

// What the values in a parcel look like. Numbers are in the machine's own byte order.
//
//   int32    4 bytes
//   bool     1 byte, 0 or 1
//   text     u32 size, then that many bytes; the last one, and no other, is zero
//   bundle   u32 size of what follows, u32 number of entries, the entries in their order
//   entry    u8 type, text key (not empty, none twice), then by type
//              1  text
//              2  u32 number of texts, the texts
//              3  u32 size (not 0), that many bytes
//
// The type numbers are those of this format; the ones in bundle.h may change without it.

namespace host {

namespace {

enum EncodedType : std::uint8_t { ENCODED_STR = 1, ENCODED_STR_ARRAY = 2, ENCODED_BYTE = 3 };

constexpr std::size_t NUMBER = sizeof(std::uint32_t);
constexpr std::size_t SMALLEST_ENTRY = 1 + (NUMBER + 2) + NUMBER;
constexpr std::size_t USUAL_SIZE = 512;
constexpr std::size_t LARGE_SIZE = std::size_t{16}
                                   << 10; // copying less is faster than a piece more

const Memory NONE; // for what does not stay where it is

template <typename Put>
void encodeNumber(std::size_t value, Put &&put) {
    const auto narrow = static_cast<std::uint32_t>(value);
    put(NONE, &narrow, NUMBER);
}

template <typename Put>
void encodeSized(const Memory &memory, const void *data, std::size_t size, Put &put) {
    encodeNumber(size, put);
    put(memory, data, size);
}

// Calls put(memory, data, size) for one piece after the other, so that what measures is what
// writes.
template <typename Put>
void encodeBundle(const bundle &b, Put put) {
    encodeNumber(b.entries->count(), put);
    for (const keyval_t &entry : *b.entries) {
        const bool isArray = entry.type == BUNDLE_TYPE_STR_ARRAY;
        const EncodedType type = isArray                         ? ENCODED_STR_ARRAY
                                 : entry.type == BUNDLE_TYPE_STR ? ENCODED_STR
                                                                 : ENCODED_BYTE;
        put(NONE, &type, sizeof type);
        encodeSized(entry.memory, entry.key.data(), entry.key.size() + 1, put);
        if (!isArray) {
            encodeSized(entry.memory, entry.value, entry.size, put);
            continue;
        }
        encodeNumber(entry.size, put);
        for (std::size_t i = 0; i < entry.size; i++)
            encodeSized(entry.memory, entry.texts()[i], std::strlen(entry.texts()[i]) + 1, put);
    }
}

// Consumes bytes from the front. What is not wholly there, or not as required, breaks the reader:
// from then on every value is 0 or empty, and no byte is left.
class Reader {
public:
    explicit Reader(std::string_view bytes) : _left(bytes) {}

    bool isBroken() const { return _isBroken; }
    std::size_t left() const { return _left.size(); }

    bool require(bool isTrue) {
        if (!isTrue) {
            _isBroken = true;
            _left = {};
        }
        return isTrue;
    }

    std::string_view take(std::size_t size) {
        if (!require(size <= _left.size()))
            return {};
        const std::string_view taken(_left.data(), size);
        _left.remove_prefix(size);
        return taken;
    }

    template <typename Value>
    Value value() {
        Value value = 0;
        const std::string_view bytes = take(sizeof value);
        if (!bytes.empty())
            std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }

    std::string_view sized() { return take(value<std::uint32_t>()); }

    // Without its zero, which follows.
    std::string_view text() {
        const std::string_view bytes = sized();
        if (!require(!bytes.empty() && bytes.find('\0') == bytes.size() - 1))
            return {};
        return {bytes.data(), bytes.size() - 1};
    }

private:
    std::string_view _left;
    bool _isBroken = false;
};

keyval_t decodeEntry(Reader &reader, Entries &entries, const Memory &memory) {
    const auto type = reader.value<std::uint8_t>();
    const std::string_view key = reader.text();
    reader.require(!key.empty());
    if (type == ENCODED_STR) {
        const std::string_view text = reader.text();
        const auto size = static_cast<std::uint32_t>(text.size() + 1);
        return {key, BUNDLE_TYPE_STR, size, const_cast<char *>(text.data()), memory};
    }
    if (type == ENCODED_STR_ARRAY) {
        std::vector<std::string_view> texts;
        for (auto count = reader.value<std::uint32_t>(); count > 0 && !reader.isBroken(); count--)
            texts.push_back(reader.text());
        return entries.makeArray(key, texts);
    }
    const std::string_view bytes = reader.sized();
    reader.require(type == ENCODED_BYTE && !bytes.empty());
    return entries.make(BUNDLE_TYPE_BYTE, key, bytes);
}

// Builds a bundle from bytes that a peer chose: nothing is believed before it has been checked, and
// memory is reserved only for what the bytes that are there can hold. Texts stay where they are, in
// the memory given, so that a bundle costs few allocations however many texts it has.
//
// Null, and the reader broken: malformed. Throws std::bad_alloc.
bundle *decodeBundle(Reader &reader, const Memory &memory) {
    Reader inner(reader.sized());
    Entries::User user = Entries::create();
    Entries &entries = *user;
    const auto count = inner.value<std::uint32_t>();
    if (inner.require(count <= inner.left() / SMALLEST_ENTRY))
        entries.reserve(count);
    for (std::uint32_t i = 0; i < count && !inner.isBroken(); i++) {
        keyval_t entry = decodeEntry(inner, entries, memory);
        if (inner.require(!inner.isBroken() && entries.find(entry.key) == nullptr))
            entries.add(std::move(entry));
    }
    const bool isWhole = reader.require(!inner.isBroken() && inner.left() == 0);
    return isWhole ? Entries::makeBundle(std::move(user)) : nullptr;
}

// Room for so many bytes at the parcel's end, which grows in steps, so that many small writes stay
// cheap. Throws std::bad_alloc.
std::uint8_t *extend(Parcel &parcel, std::size_t size) {
    if (parcel.bytes.capacity() == 0)
        parcel.bytes.reserve(std::max(USUAL_SIZE, size));
    return parcel.bytes.extend(size);
}

// For values that are always copied.
template <typename Encode>
int write(rpc_port_parcel_h h, std::size_t size, Encode encode) {
    if (h == nullptr || size > NUMBER + MAX_SIZE)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    try {
        encode([to = extend(*static_cast<Parcel *>(h), size)](const Memory &, const void *data,
                                                              std::size_t length) mutable {
            std::memcpy(to, data, length);
            to += length;
        });
        return RPC_PORT_ERROR_NONE;
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
}

// Large values that stay where they are need not be copied.
bool isInsert(const Memory &memory, std::size_t size) {
    return size >= LARGE_SIZE && memory;
}

int writeBundle(Parcel &parcel, const bundle &b) {
    std::size_t size = 0, copied = NUMBER, inserts = 0;
    encodeBundle(b, [&](const Memory &memory, const void *, std::size_t length) {
        size += length;
        isInsert(memory, length) ? inserts++ : copied += length;
    });
    if (size > MAX_SIZE)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    std::uint8_t *to = nullptr;
    try {
        if (inserts > 0)
            parcel.inserts.reserve(parcel.inserts.size() + inserts);
        to = extend(parcel, copied);
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
    const auto put = [&](const Memory &memory, const void *data, std::size_t length) {
        if (isInsert(memory, length)) {
            const auto position = static_cast<std::size_t>(to - parcel.bytes.data());
            parcel.inserts.push_back({position, {memory, data, length}});
        } else {
            std::memcpy(to, data, length);
            to += length;
        }
    };
    encodeNumber(size, put);
    encodeBundle(b, put);
    return RPC_PORT_ERROR_NONE;
}

// What is read has to be in one piece.
void flatten(Parcel &parcel) {
    if (parcel.inserts.empty())
        return;
    Bytes whole;
    whole.reserve(parcel.size());
    parcel.forEachPiece(
        [&](const Memory &, const void *data, std::size_t size) { whole.append(data, size); });
    parcel.bytes = std::move(whole);
    parcel.inserts.clear();
}

template <typename Value, typename Decode>
int read(rpc_port_parcel_h h, Value *out, Decode decode) {
    if (h == nullptr || out == nullptr)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    auto &parcel = *static_cast<Parcel *>(h);
    try {
        flatten(parcel);
        const std::string_view all(reinterpret_cast<char *>(parcel.bytes.data()),
                                   parcel.bytes.size());
        Reader reader(all.substr(parcel.readPosition));
        const Value value = decode(reader);
        if (reader.isBroken())
            return RPC_PORT_ERROR_IO_ERROR;
        *out = value;
        parcel.readPosition = all.size() - reader.left();
        return RPC_PORT_ERROR_NONE;
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
}

} // namespace

} // namespace host

int rpc_port_parcel_create(rpc_port_parcel_h *h) {
    if (h == nullptr)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    try {
        *h = new host::Parcel;
        return RPC_PORT_ERROR_NONE;
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
}

int rpc_port_parcel_destroy(rpc_port_parcel_h h) {
    delete static_cast<host::Parcel *>(h);
    return h != nullptr ? RPC_PORT_ERROR_NONE : RPC_PORT_ERROR_INVALID_PARAMETER;
}

int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i) {
    return host::write(h, sizeof i, [=](auto put) { put(host::NONE, &i, sizeof i); });
}

int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b) {
    const std::uint8_t byte = b ? 1 : 0;
    return host::write(h, sizeof byte, [=](auto put) { put(host::NONE, &byte, sizeof byte); });
}

int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char *str) {
    if (str == nullptr)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    const std::size_t size = std::strlen(str) + 1;
    return host::write(h, host::NUMBER + size,
                       [=](auto put) { host::encodeSized(host::NONE, str, size, put); });
}

int rpc_port_parcel_write_bundle(rpc_port_parcel_h h, bundle *b) {
    if (h == nullptr || b == nullptr)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    return host::writeBundle(*static_cast<host::Parcel *>(h), *b);
}

int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int *i) {
    return host::read(h, i, [](host::Reader &reader) { return reader.value<int>(); });
}

int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool *b) {
    return host::read(h, b, [](host::Reader &reader) {
        const auto value = reader.value<std::uint8_t>();
        reader.require(value <= 1);
        return value == 1;
    });
}

int rpc_port_parcel_read_string(rpc_port_parcel_h h, char **str) {
    return host::read(h, str, [](host::Reader &reader) -> char * {
        const std::string_view text = reader.text();
        char *copy = reader.isBroken() ? nullptr : strdup(text.data());
        if (copy == nullptr && !reader.isBroken())
            throw std::bad_alloc();
        return copy;
    });
}

int rpc_port_parcel_read_bundle(rpc_port_parcel_h h, bundle **b) {
    return host::read(h, b, [h](host::Reader &reader) {
        return host::decodeBundle(reader, static_cast<host::Parcel *>(h)->bytes.memory());
    });
}
