// SPDX-License-Identifier: Apache-2.0
#include "tap_reader.h"

#include <cstdio>
#include <optional>
#include <string_view>
#include <tuple>
#include <utility>

#include <host/tap.h>

#include "client/message_proxy.h"

namespace nelvoctl {

namespace {

using nelvo::client::Answer, nelvo::client::BundlePtr, nelvo::client::ParcelPtr;
using Kind = nelvo::client::EventKind;

// Empty if the parcel is none of the interface.
std::optional<std::pair<Kind, std::shared_ptr<bundle>>> readParcel(bool isReceived,
                                                                   std::string_view bytes) {
    const ParcelPtr parcel(host_parcel_create(bytes.data(), bytes.size()));
    if (!parcel)
        return std::nullopt;
    if (!isReceived) {
        Answer answer;
        if (nelvo::client::readAnswer(parcel.get(), answer))
            return std::nullopt;
        return {{Kind::ANSWER, answer.response.content}};
    }
    int method = nelvo::client::RESULT;
    if (rpc_port_parcel_read_int32(parcel.get(), &method) != RPC_PORT_ERROR_NONE)
        return std::nullopt;
    if (method == nelvo::client::SET_CB || method == nelvo::client::UNSET_CB)
        return {{method == nelvo::client::SET_CB ? Kind::REGISTERED : Kind::UNREGISTERED, nullptr}};
    if (method != nelvo::client::SEND)
        return std::nullopt;
    bundle *content = nullptr;
    if (rpc_port_parcel_read_bundle(parcel.get(), &content) != RPC_PORT_ERROR_NONE)
        content = nullptr;
    return {{Kind::REQUEST, BundlePtr(content)}};
}

} // namespace

void TapReader::take(const char *bytes, std::size_t size) {
    _pending.append(bytes, size);
    while (takeEvent()) {
    }
}

// Returns false if the event is not there as a whole yet.
bool TapReader::takeEvent() {
    const std::size_t end = _pending.find('\n');
    double seconds = 0;
    char name[16], connection[160];
    std::size_t size = 0;
    if (end == std::string::npos ||
        std::sscanf(_pending.substr(0, end).c_str(), "%lf %15s %159s %zu", &seconds, name,
                    connection, &size) != 4 ||
        _pending.size() - end - 1 < size)
        return false;
    const std::string bytes = _pending.substr(end + 1, size);
    _pending.erase(0, end + 1 + size);
    const std::string what = name, where = connection;
    TapEvent taken{seconds, Kind::GONE, where, where.substr(0, where.rfind(':')), nullptr};
    if (what == "connected") {
        taken.kind = Kind::CONNECTED;
    } else if (what != "gone") {
        auto read = readParcel(what == "received", bytes);
        if (!read)
            return true;
        std::tie(taken.kind, taken.content) = std::move(*read);
    }
    event(taken);
    return true;
}

} // namespace nelvoctl
