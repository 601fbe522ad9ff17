// SPDX-License-Identifier: Apache-2.0
// A byte that says in which pieces the rest arrives, then lines. The pieces make no difference; a
// line is a message that reads the same when it is written again, or is refused with a known code.
#include <algorithm>
#include <set>
#include <vector>

#include "fuzzing.h"
#include "tools/nelvoctl/json_rpc.h"

using namespace nelvoctl;
using nelvo::testkit::require;

static std::vector<std::string> linesOf(const std::string &bytes, std::size_t piece) {
    std::vector<std::string> lines;
    LineReader reader;
    const auto take = [&](const std::string *line) {
        require(line, "no line is too long");
        lines.push_back(*line);
    };
    for (std::size_t at = 0; at < bytes.size(); at += piece)
        reader.feed(std::string_view(bytes).substr(at, piece), take);
    reader.end(take);
    return lines;
}

static void readAndWrite(const std::string &line) {
    const auto message = readMessage(readLine(&line));
    if (!message)
        return;
    nlohmann::json written = {
        {"jsonrpc", "2.0"}, {"method", message->method}, {"params", message->params}};
    if (!message->id.is_null())
        written["id"] = message->id;
    const std::string again = written.dump();
    const auto read = readMessage(readLine(&again));
    require(read && read->id == message->id && read->method == message->method &&
                read->params.dump() == message->params.dump(),
            "the message, written and read again");
}

void nelvo::testkit::fuzz(Input input) {
    const std::size_t piece = 1 + input.byte();
    const std::string bytes = input.rest();
    const std::vector<std::string> lines = linesOf(bytes, piece);
    require(lines == linesOf(bytes, bytes.size() + 1), "the lines, whatever the pieces");
    for (const std::string &line : lines) {
        require(!line.empty() && line.find('\n') == line.npos, "a line is one line");
        try {
            readAndWrite(line);
        } catch (const RpcError &error) {
            const std::set<int> codes = {RpcError::NO_JSON, RpcError::NO_REQUEST,
                                         RpcError::BAD_PARAMS};
            require(codes.count(error.code) != 0, "the code of the refusal");
        }
    }
}
