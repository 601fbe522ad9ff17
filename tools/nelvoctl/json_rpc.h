// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace nelvoctl {

// Why a message or a request is refused.
struct RpcError : std::exception {
    enum Code {
        NO_JSON = -32700,
        NO_REQUEST = -32600,
        NO_METHOD = -32601,
        BAD_PARAMS = -32602,
        INTERNAL = -32603,
        NO_RESOURCE = -32002,
        UNKNOWN_VERSION = -32022,
    };

    RpcError(int why, std::string what, nlohmann::json more = nullptr)
        : code(why), message(std::move(what)), data(std::move(more)) {}
    const char *what() const noexcept override { return message.c_str(); }

    int code;
    std::string message;
    nlohmann::json data; // null: none
};

// A request or a notification.
struct RpcMessage {
    nlohmann::json id; // a string or a whole number; null in a notification
    std::string method;
    nlohmann::json params = nlohmann::json::object();
};

// Cuts a stream of bytes into lines. Of a line that is too long no more than LONGEST_LINE bytes are
// kept at any time.
class LineReader {
public:
    static constexpr std::size_t LONGEST_LINE = 16 * 1024 * 1024;

    // Calls take for each line that is complete now, without its end; with nullptr for a line that
    // was too long.
    using Take = std::function<void(const std::string *line)>;
    void feed(std::string_view bytes, const Take &take);
    // The stream has ended: the rest is a line too.
    void end(const Take &take);

private:
    std::string _line;
    bool _isTooLong = false; // the rest of the line is skipped
};

// Parses a text whose values are nested to a depth that is safe for recursion. Throws
// nlohmann::json::exception.
nlohmann::json parseJson(std::string_view text);

// The JSON of one line. Throws RpcError.
nlohmann::json readLine(const std::string *line);

// Returns nothing for a response, of which this server awaits none. Throws RpcError.
std::optional<RpcMessage> readMessage(const nlohmann::json &document);

// The id to answer a message with that was refused; null if the message has none.
nlohmann::json idOf(const nlohmann::json &document);

nlohmann::json resultMessage(const nlohmann::json &id, nlohmann::json result);
nlohmann::json errorMessage(const nlohmann::json &id, const RpcError &error);

} // namespace nelvoctl
