// SPDX-License-Identifier: Apache-2.0
#include "json_rpc.h"

#include <utility>

namespace nelvoctl {

namespace {

using nlohmann::json;

constexpr int DEEPEST_JSON = 100;

bool isId(const json &id) {
    return id.is_string() || id.is_number_integer();
}

} // namespace

void LineReader::feed(std::string_view bytes, const Take &take) {
    for (std::size_t end = 0; (end = bytes.find('\n')) != bytes.npos;
         bytes.remove_prefix(end + 1)) {
        feed(bytes.substr(0, end), take);
        this->end(take);
    }
    _isTooLong = _isTooLong || bytes.size() > LONGEST_LINE - _line.size();
    if (_isTooLong)
        _line = {};
    else
        _line += bytes;
}

void LineReader::end(const Take &take) {
    std::string line = std::exchange(_line, {});
    if (std::exchange(_isTooLong, false))
        return take(nullptr);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    if (!line.empty())
        take(&line);
}

json parseJson(std::string_view text) {
    const auto limit = [](int depth, json::parse_event_t, const json &) {
        if (depth > DEEPEST_JSON)
            throw json::other_error::create(599, "nested too deeply", nullptr);
        return true;
    };
    return json::parse(text, limit);
}

json readLine(const std::string *line) {
    if (!line)
        throw RpcError(RpcError::NO_REQUEST, "a line is longer than 16 MiB");
    try {
        return parseJson(*line);
    } catch (const json::parse_error &e) {
        throw RpcError(RpcError::NO_JSON, std::string("not JSON: ") + e.what());
    } catch (const json::exception &e) {
        throw RpcError(RpcError::NO_REQUEST, e.what());
    }
}

std::optional<RpcMessage> readMessage(const json &document) {
    if (!document.is_object() || document.value("jsonrpc", json()) != "2.0")
        throw RpcError(RpcError::NO_REQUEST, "not an object with \"jsonrpc\": \"2.0\"");
    if (!document.contains("method") && (document.contains("result") || document.contains("error")))
        return std::nullopt;
    RpcMessage message;
    const json method = document.value("method", json());
    if (!method.is_string())
        throw RpcError(RpcError::NO_REQUEST, "\"method\" is not a string");
    message.method = method;
    if (document.contains("id")) {
        message.id = document["id"];
        if (!isId(message.id))
            throw RpcError(RpcError::NO_REQUEST, "\"id\" is neither a string nor a whole number");
    }
    if (document.contains("params")) {
        message.params = document["params"];
        if (!message.params.is_object())
            throw RpcError(RpcError::BAD_PARAMS, "\"params\" is not an object");
    }
    return message;
}

json idOf(const json &document) {
    const json id = document.is_object() ? document.value("id", json()) : json();
    return isId(id) ? id : json();
}

json resultMessage(const json &id, json result) {
    return {{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}};
}

json errorMessage(const json &id, const RpcError &error) {
    json body = {{"code", error.code}, {"message", error.message}};
    if (!error.data.is_null())
        body["data"] = error.data;
    return {{"jsonrpc", "2.0"}, {"id", id}, {"error", body}};
}

} // namespace nelvoctl
