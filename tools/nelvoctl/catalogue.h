// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "schema.h"

namespace nelvoctl {

// An action that an application declares.
struct Action {
    std::string id;
    nlohmann::json tool; // the whole declaration
    Schema input;
    std::optional<Schema> output; // empty: the answer is any text
    // The only parameter is the text "actionParams", which is sent as it is.
    bool takesText = false;

    // What to send for these arguments, which must fit the input schema; empty: no actionParams.
    std::optional<std::string> paramsFor(const nlohmann::json &arguments) const;
};

// What an application declares in nelvo-actions.json: its actions as the tools of an MCP server,
// and what its state is. Empty if there are problems.
struct Catalogue {
    std::vector<Action> actions;
    nlohmann::json document = nlohmann::json::object();
    std::vector<Problem> problems; // if the document is not JSON, the text says in which line

    const Action *find(const std::string &id) const;
    std::vector<std::string> ids() const;
};

Catalogue parseCatalogue(const std::string &text);

// Reads the file. Throws Failure if the file cannot be read.
Catalogue readCatalogue(const std::string &path);

// The file where a running application declares its actions; empty if the application was not
// found. The file need not exist.
std::string findCatalogue(const std::string &appId);

// The catalogue of a running application; empty if none is found or it cannot be used.
Catalogue catalogueOf(const std::string &appId);

// The problem as one line: "FILE: /tools/0/name: TEXT".
std::string describe(const std::string &file, const Problem &problem);

} // namespace nelvoctl
