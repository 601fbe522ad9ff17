// SPDX-License-Identifier: Apache-2.0
#include "parcel.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>

#include <dlog.h>
#include <rpc-port-parcel.h>

#include "bundle_impl.h"
#include "log_tag.h"

// The encoding of values. They follow each other without tags or padding, and numbers are in the
// machine's own byte order.
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
// From this size on, referring to a value in another piece is faster than copying the value.
constexpr std::size_t LARGE_SIZE = std::size_t{16} << 10;

// Writes an encoding to memory that is large enough for it.
class Writer {
public:
    explicit Writer(std::uint8_t *at) : _at(at) {}

    std::uint8_t *at() const { return _at; }

    void put(const void *data, std::size_t size) {
        std::memcpy(_at, data, size);
        _at += size;
    }
    void number(std::size_t value) {
        const auto narrow = static_cast<std::uint32_t>(value);
        put(&narrow, NUMBER);
    }
    void sized(const void *data, std::size_t size) {
        number(size);
        put(data, size);
    }

private:
    std::uint8_t *_at;
};

// Whether the value becomes an insert of the parcel.
bool isInsert(const keyval_t &entry) {
    return entry.size >= LARGE_SIZE && entry.type != BUNDLE_TYPE_STR_ARRAY;
}

std::size_t encodedSize(const keyval_t &entry) {
    std::size_t size = 1 + NUMBER + entry.key.size() + 1 + NUMBER;
    if (entry.type != BUNDLE_TYPE_STR_ARRAY)
        return size + entry.size;
    for (std::size_t i = 0; i < entry.size; ++i)
        size += NUMBER + std::strlen(entry.texts()[i]) + 1;
    return size;
}

// Does not write the value of an insert; that value is the end of its entry.
void encode(const keyval_t &entry, Writer &writer) {
    const std::uint8_t type = entry.type == BUNDLE_TYPE_STR    ? ENCODED_STR
                              : entry.type == BUNDLE_TYPE_BYTE ? ENCODED_BYTE
                                                               : ENCODED_STR_ARRAY;
    writer.put(&type, sizeof type);
    writer.sized(entry.key.data(), entry.key.size() + 1);
    writer.number(entry.size);
    if (type != ENCODED_STR_ARRAY && !isInsert(entry))
        writer.put(entry.value, entry.size);
    for (std::size_t i = 0; type == ENCODED_STR_ARRAY && i < entry.size; ++i)
        writer.sized(entry.texts()[i], std::strlen(entry.texts()[i]) + 1);
}

// Reads values from the front of an encoding. A value that is incomplete or malformed breaks the
// reader: from then on it returns zeros and empty texts, and has no bytes left.
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

    // The result does not include the zero, which follows it in memory.
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

// Texts are not copied; the entries refer to the given memory, unless the use of memory is checked.
void decodeEntry(Reader &reader, bundle &to, const Memory &memory) {
    const auto type = reader.value<std::uint8_t>();
    const std::string_view key = reader.text();
    reader.require(!key.empty() && !to.find(key));
    if (type == ENCODED_STR) {
        const std::string_view text = reader.text();
        if (!reader.isBroken() && isMemoryChecked())
            to.add(BUNDLE_TYPE_STR, key, text.data(), text.size() + 1);
        else if (!reader.isBroken())
            to.addText(key, text, memory);
    } else if (type == ENCODED_STR_ARRAY) {
        std::vector<std::string_view> texts;
        for (auto count = reader.value<std::uint32_t>(); count > 0 && !reader.isBroken(); --count)
            texts.push_back(reader.text());
        if (!reader.isBroken())
            to.addArray(key, texts);
    } else {
        const std::string_view bytes = reader.sized();
        if (reader.require(type == ENCODED_BYTE && !bytes.empty()))
            to.add(BUNDLE_TYPE_BYTE, key, bytes.data(), bytes.size());
    }
}

// Decodes a bundle from bytes that a peer chose. Every number is checked before it is used, and
// memory is reserved only for as many entries as the bytes can hold. The bundle's texts stay in the
// parcel's memory.
//
// Returns null, and breaks the reader, if the bytes are malformed. Throws std::bad_alloc.
bundle *decodeBundle(Reader &reader, Parcel &parcel) {
    Reader inner(reader.sized());
    auto decoded = std::make_unique<bundle>();
    const auto count = inner.value<std::uint32_t>();
    if (inner.require(count <= inner.left() / SMALLEST_ENTRY))
        decoded->reserve(count);
    for (std::uint32_t i = 0; i < count && !inner.isBroken(); ++i)
        decodeEntry(inner, *decoded, parcel.bytes.memory());
    const bool isWhole = reader.require(!inner.isBroken() && inner.left() == 0);
    return isWhole ? decoded.release() : nullptr;
}

std::uint8_t *extend(Parcel &parcel, std::size_t size) {
    if (parcel.bytes.capacity() == 0)
        parcel.bytes.reserve(std::max(size, USUAL_SIZE));
    return parcel.bytes.extend(size);
}

// Refuses what could not be sent, so that whoever writes learns of it. Returns false and logs then.
bool hasRoom(const Parcel &parcel, std::size_t size) {
    const std::size_t written = parcel.size();
    if (size <= MAX_FRAME_BYTES - written)
        return true;
    dlog_print(DLOG_ERROR, LOG_TAG,
               "a value of %zu bytes is not written: a parcel of %zu bytes holds at most %zu; send "
               "less at a time",
               size, written, MAX_FRAME_BYTES);
    return false;
}

// Writes a value that is always copied.
template <typename Encode>
int write(const char *function, rpc_port_parcel_h h, std::size_t size, Encode encode) {
    Parcel *const parcel = findParcel(h, function);
    if (!parcel || (size > LARGE_SIZE && !hasRoom(*parcel, size)))
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    try {
        encode(Writer(extend(*parcel, size)));
        return RPC_PORT_ERROR_NONE;
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
}

int writeBundle(Parcel &parcel, const bundle::Entries &entries) {
    std::size_t size = NUMBER, inserted = 0, inserts = 0;
    for (const keyval_t &entry : entries) {
        size += encodedSize(entry);
        if (isInsert(entry)) {
            inserted += entry.size;
            ++inserts;
        }
    }
    if (!hasRoom(parcel, NUMBER + size))
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    std::uint8_t *to = nullptr;
    try {
        if (inserts > 0)
            parcel.inserts.reserve(parcel.inserts.size() + inserts);
        to = extend(parcel, NUMBER + size - inserted);
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
    Writer writer(to);
    writer.number(size);
    writer.number(entries.size());
    for (const keyval_t &entry : entries) {
        encode(entry, writer);
        if (isInsert(entry)) {
            const auto position = static_cast<std::size_t>(writer.at() - parcel.bytes.data());
            parcel.inserts.push_back({position, {entry.memory, entry.value, entry.size}});
        }
    }
    return RPC_PORT_ERROR_NONE;
}

// Copies a parcel with inserts into one piece, since reading needs one.
void flatten(Parcel &parcel) {
    Bytes whole;
    whole.reserve(parcel.size());
    parcel.forEachPiece(
        [&](const Memory &, const void *data, std::size_t size) { whole.append(data, size); });
    parcel.bytes = std::move(whole);
    parcel.inserts.clear();
}

template <typename Value, typename Decode>
int read(const char *function, rpc_port_parcel_h h, Value *out, Decode decode) {
    Parcel *const found = findParcel(h, function);
    if (!found || !out)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    Parcel &parcel = *found;
    try {
        if (!parcel.inserts.empty())
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
    if (!h)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    try {
        *h = new host::Parcel;
        return RPC_PORT_ERROR_NONE;
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
}

int rpc_port_parcel_destroy(rpc_port_parcel_h h) {
    host::Parcel *const parcel = host::findParcel(h, __func__);
    if (!parcel)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    delete parcel;
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i) {
    return host::write(__func__, h, sizeof i,
                       [=](host::Writer writer) { writer.put(&i, sizeof i); });
}

int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b) {
    const std::uint8_t byte = b ? 1 : 0;
    return host::write(__func__, h, sizeof byte,
                       [=](host::Writer writer) { writer.put(&byte, sizeof byte); });
}

int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char *str) {
    if (!str)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    const std::size_t size = std::strlen(str) + 1;
    return host::write(__func__, h, host::NUMBER + size,
                       [=](host::Writer writer) { writer.sized(str, size); });
}

int rpc_port_parcel_write_bundle(rpc_port_parcel_h h, bundle *b) {
    host::Parcel *const parcel = host::findParcel(h, __func__);
    if (!parcel || !b || !b->isAlive(__func__))
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    return host::writeBundle(*parcel, b->entries());
}

int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int *i) {
    return host::read(__func__, h, i, [](host::Reader &reader) { return reader.value<int>(); });
}

int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool *b) {
    return host::read(__func__, h, b, [](host::Reader &reader) {
        const auto value = reader.value<std::uint8_t>();
        reader.require(value <= 1);
        return value == 1;
    });
}

int rpc_port_parcel_read_string(rpc_port_parcel_h h, char **str) {
    return host::read(__func__, h, str, [](host::Reader &reader) -> char * {
        const std::string_view text = reader.text();
        char *copy = reader.isBroken() ? nullptr : strdup(text.data());
        if (!copy && !reader.isBroken())
            throw std::bad_alloc();
        return copy;
    });
}

int rpc_port_parcel_read_bundle(rpc_port_parcel_h h, bundle **b) {
    return host::read(__func__, h, b, [h](host::Reader &reader) {
        return host::decodeBundle(reader, *static_cast<host::Parcel *>(h));
    });
}
