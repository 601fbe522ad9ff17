// SPDX-License-Identifier: Apache-2.0
#include "parcel.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

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

using Bytes = std::vector<std::uint8_t>;

enum EncodedType : std::uint8_t { ENCODED_STR = 1, ENCODED_STR_ARRAY = 2, ENCODED_BYTE = 3 };

constexpr std::size_t NUMBER = sizeof(std::uint32_t);
constexpr std::size_t SMALLEST_TEXT = NUMBER + 1;
constexpr std::size_t SMALLEST_ENTRY = 1 + SMALLEST_TEXT + 1 + NUMBER;
constexpr std::size_t USUAL_SIZE = 256;

// Fills room that has been measured before.
class Writer {
public:
    explicit Writer(std::uint8_t *to) : _to(to) {}

    void byte(std::uint8_t value) { *_to++ = value; }
    void number(std::size_t value) {
        const auto narrow = static_cast<std::uint32_t>(value);
        copy(&narrow, sizeof narrow);
    }
    void sized(const void *data, std::size_t size) {
        number(size);
        copy(data, size);
    }

private:
    void copy(const void *data, std::size_t size) {
        std::memcpy(_to, data, size);
        _to += size;
    }

    std::uint8_t *_to;
};

// Consumes bytes from the front. What is not wholly there is not taken.
class Reader {
public:
    Reader(const std::uint8_t *from, std::size_t size) : _from(from), _left(size) {}

    std::size_t left() const { return _left; }

    const std::uint8_t *take(std::size_t size) {
        if (size > _left)
            return nullptr;
        _left -= size;
        return std::exchange(_from, _from + size);
    }

    template <typename Value>
    std::optional<Value> value() {
        const std::uint8_t *bytes = take(sizeof(Value));
        if (bytes == nullptr)
            return std::nullopt;
        Value value;
        std::memcpy(&value, bytes, sizeof value);
        return value;
    }

    std::optional<std::string_view> sized() {
        const auto size = value<std::uint32_t>();
        const std::uint8_t *bytes = size ? take(*size) : nullptr;
        if (bytes == nullptr)
            return std::nullopt;
        return std::string_view(reinterpret_cast<const char *>(bytes), *size);
    }

    // Without its terminating zero, which follows.
    std::optional<std::string_view> text() {
        const auto bytes = sized();
        if (!bytes || bytes->empty() || bytes->find('\0') != bytes->size() - 1)
            return std::nullopt;
        return bytes->substr(0, bytes->size() - 1);
    }

private:
    const std::uint8_t *_from;
    std::size_t _left;
};

std::size_t encodedSize(const keyval_t &entry) {
    std::size_t size = 1 + NUMBER + entry.key.size() + 1 + NUMBER;
    if (entry.type != BUNDLE_TYPE_STR_ARRAY)
        return size + entry.size;
    for (std::size_t i = 0; i < entry.size; i++)
        size += NUMBER + std::strlen(entry.texts()[i]) + 1;
    return size;
}

std::size_t encodedSize(const bundle &b) {
    std::size_t size = NUMBER;
    if (b.entries)
        b.entries->forEach([&](const keyval_t &entry) { size += encodedSize(entry); });
    return size;
}

void encode(const keyval_t &entry, Writer &writer) {
    const bool isText = entry.type == BUNDLE_TYPE_STR;
    const bool isArray = entry.type == BUNDLE_TYPE_STR_ARRAY;
    writer.byte(isText ? ENCODED_STR : isArray ? ENCODED_STR_ARRAY : ENCODED_BYTE);
    writer.sized(entry.key.data(), entry.key.size() + 1);
    if (!isArray) {
        writer.sized(entry.value, entry.size);
        return;
    }
    writer.number(entry.size);
    for (std::size_t i = 0; i < entry.size; i++)
        writer.sized(entry.texts()[i], std::strlen(entry.texts()[i]) + 1);
}

void encode(const bundle &b, Writer &writer) {
    writer.number(b.entries ? b.entries->count() : 0);
    if (b.entries)
        b.entries->forEach([&](const keyval_t &entry) { encode(entry, writer); });
}

// Builds a bundle from bytes that a peer chose: nothing is believed before it has been checked, and
// memory is reserved only for what the bytes that are there can hold. Texts stay in one copy of
// those bytes, so that a bundle costs few allocations however many texts it has.
class BundleDecoder {
public:
    BundleDecoder(const Ref<Block> &block, std::size_t size)
        : _block(block), _reader(reinterpret_cast<std::uint8_t *>(block->data()), size) {}

    // False: malformed. Throws std::bad_alloc.
    bool decodeInto(Entries &entries) {
        const auto count = _reader.value<std::uint32_t>();
        if (!count || *count > _reader.left() / SMALLEST_ENTRY)
            return false;
        entries.reserve(*count);
        for (std::uint32_t i = 0; i < *count; i++) {
            std::optional<keyval_t> decoded = entry();
            if (!decoded || entries.find(decoded->key) != nullptr)
                return false;
            entries.add(std::move(*decoded));
        }
        return _reader.left() == 0;
    }

private:
    std::optional<keyval_t> entry() {
        const auto type = _reader.value<std::uint8_t>();
        const auto key = _reader.text();
        if (!type || !key || key->empty())
            return std::nullopt;
        switch (*type) {
        case ENCODED_STR:
            return textEntry(*key);
        case ENCODED_STR_ARRAY:
            return arrayEntry(*key);
        case ENCODED_BYTE:
            return byteEntry(*key);
        default:
            return std::nullopt;
        }
    }

    std::optional<keyval_t> textEntry(std::string_view key) {
        const auto text = _reader.text();
        if (!text)
            return std::nullopt;
        keyval_t entry;
        entry.block = _block;
        entry.key = key;
        entry.type = BUNDLE_TYPE_STR;
        entry.size = static_cast<std::uint32_t>(text->size() + 1);
        entry.value = const_cast<char *>(text->data());
        return entry;
    }

    std::optional<keyval_t> arrayEntry(std::string_view key) {
        const auto count = _reader.value<std::uint32_t>();
        if (!count || *count > _reader.left() / SMALLEST_TEXT || *count > INT32_MAX)
            return std::nullopt;
        std::vector<const char *> texts;
        texts.reserve(*count);
        for (std::uint32_t i = 0; i < *count; i++) {
            const auto text = _reader.text();
            if (!text)
                return std::nullopt;
            texts.push_back(text->data());
        }
        return makeArrayEntry(key, texts.data(), texts.size());
    }

    std::optional<keyval_t> byteEntry(std::string_view key) {
        const auto bytes = _reader.sized();
        if (!bytes || bytes->empty())
            return std::nullopt;
        return makeEntry(BUNDLE_TYPE_BYTE, key, bytes->data(), bytes->size());
    }

    const Ref<Block> &_block;
    Reader _reader;
};

// Null: malformed. Throws std::bad_alloc.
std::unique_ptr<bundle> decodeBundle(std::string_view encoded) {
    Ref<Block> block = Block::make(encoded.size());
    std::memcpy(block->data(), encoded.data(), encoded.size());
    auto decoded = std::make_unique<bundle>();
    decoded->entries = Ref<Entries>(new Entries);
    if (!BundleDecoder(block, encoded.size()).decodeInto(*decoded->entries))
        return nullptr;
    return decoded;
}

// Room for size more bytes at the parcel's end; grows in steps, so that many small writes stay
// cheap. The parcel is as it was when this throws std::bad_alloc.
Writer append(Parcel &parcel, std::size_t size) {
    const std::size_t end = parcel.bytes.size();
    parcel.bytes.resize(end + size);
    return Writer(parcel.bytes.data() + end);
}

template <typename Work>
int write(rpc_port_parcel_h h, Work work) {
    if (h == nullptr)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    try {
        work(*static_cast<Parcel *>(h));
        return RPC_PORT_ERROR_NONE;
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
}

// The place of reading moves on only when work(), which stores the value, returns no error.
template <typename Work>
int read(rpc_port_parcel_h h, const void *out, Work work) {
    if (h == nullptr || out == nullptr)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    auto &parcel = *static_cast<Parcel *>(h);
    const std::size_t left = parcel.bytes.size() - parcel.readPosition;
    Reader reader(parcel.bytes.data() + parcel.readPosition, left);
    try {
        const int result = work(reader);
        if (result == RPC_PORT_ERROR_NONE)
            parcel.readPosition += left - reader.left();
        return result;
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
        auto parcel = std::make_unique<host::Parcel>();
        parcel->bytes.reserve(host::USUAL_SIZE);
        *h = parcel.release();
        return RPC_PORT_ERROR_NONE;
    } catch (...) {
        return RPC_PORT_ERROR_OUT_OF_MEMORY;
    }
}

int rpc_port_parcel_destroy(rpc_port_parcel_h h) {
    if (h == nullptr)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    delete static_cast<host::Parcel *>(h);
    return RPC_PORT_ERROR_NONE;
}

int rpc_port_parcel_write_int32(rpc_port_parcel_h h, int i) {
    return host::write(h, [=](host::Parcel &parcel) {
        host::append(parcel, host::NUMBER).number(static_cast<std::uint32_t>(i));
    });
}

int rpc_port_parcel_write_bool(rpc_port_parcel_h h, bool b) {
    return host::write(h, [=](host::Parcel &parcel) { host::append(parcel, 1).byte(b ? 1 : 0); });
}

int rpc_port_parcel_write_string(rpc_port_parcel_h h, const char *str) {
    const std::size_t size = str != nullptr ? std::strlen(str) + 1 : 0;
    if (size == 0 || size > host::MAX_SIZE)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    return host::write(h, [=](host::Parcel &parcel) {
        host::append(parcel, host::NUMBER + size).sized(str, size);
    });
}

int rpc_port_parcel_write_bundle(rpc_port_parcel_h h, bundle *b) {
    const std::size_t size = b != nullptr ? host::encodedSize(*b) : 0;
    if (size == 0 || size > host::MAX_SIZE)
        return RPC_PORT_ERROR_INVALID_PARAMETER;
    return host::write(h, [=](host::Parcel &parcel) {
        host::Writer writer = host::append(parcel, host::NUMBER + size);
        writer.number(size);
        host::encode(*b, writer);
    });
}

int rpc_port_parcel_read_int32(rpc_port_parcel_h h, int *i) {
    return host::read(h, i, [=](host::Reader &reader) {
        const auto value = reader.value<std::int32_t>();
        if (!value)
            return RPC_PORT_ERROR_IO_ERROR;
        *i = *value;
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_parcel_read_bool(rpc_port_parcel_h h, bool *b) {
    return host::read(h, b, [=](host::Reader &reader) {
        const auto value = reader.value<std::uint8_t>();
        if (!value || *value > 1)
            return RPC_PORT_ERROR_IO_ERROR;
        *b = *value == 1;
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_parcel_read_string(rpc_port_parcel_h h, char **str) {
    return host::read(h, str, [=](host::Reader &reader) {
        const auto text = reader.text();
        if (!text)
            return RPC_PORT_ERROR_IO_ERROR;
        auto copy = static_cast<char *>(std::malloc(text->size() + 1));
        if (copy == nullptr)
            return RPC_PORT_ERROR_OUT_OF_MEMORY;
        std::memcpy(copy, text->data(), text->size() + 1);
        *str = copy;
        return RPC_PORT_ERROR_NONE;
    });
}

int rpc_port_parcel_read_bundle(rpc_port_parcel_h h, bundle **b) {
    return host::read(h, b, [=](host::Reader &reader) {
        const auto encoded = reader.sized();
        std::unique_ptr<bundle> decoded = encoded ? host::decodeBundle(*encoded) : nullptr;
        if (decoded == nullptr)
            return RPC_PORT_ERROR_IO_ERROR;
        *b = decoded.release();
        return RPC_PORT_ERROR_NONE;
    });
}
