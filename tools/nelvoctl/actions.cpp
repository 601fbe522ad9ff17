// SPDX-License-Identifier: Apache-2.0
// actions: the actions that an application declares in its catalogue.
#include <algorithm>

#include <nlohmann/json.hpp>
#include <rpc-port.h>

#include "catalogue.h"
#include "commands.h"
#include "diagnosis.h"
#include "output.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

// "volume: integer"; in brackets if the parameter may be left out.
std::string describeParameters(const json &input) {
    const json required = input.value("required", json::array());
    const json properties = input.value("properties", json::object());
    std::string text;
    for (const auto &[name, schema] : properties.items()) {
        const json type = schema.is_object() ? schema.value("type", json()) : json();
        std::string parameter = name + (type.is_string() ? ": " + type.get<std::string>() : "");
        if (std::find(required.begin(), required.end(), name) == required.end())
            parameter = "[" + parameter + "]";
        text += (text.empty() ? "" : ", ") + parameter;
    }
    return text;
}

void printActions(const Catalogue &catalogue) {
    std::size_t idWidth = 0, titleWidth = 0;
    const auto titleOf = [](const Action &action) { return action.tool.value("title", ""); };
    for (const Action &action : catalogue.actions) {
        idWidth = std::max(idWidth, action.id.size());
        titleWidth = std::max(titleWidth, titleOf(action).size());
    }
    for (const Action &action : catalogue.actions)
        print(padded(printable(action.id), static_cast<int>(idWidth)) + "  " +
              padded(printable(titleOf(action)), static_cast<int>(titleWidth)) + "  (" +
              printable(describeParameters(action.tool["inputSchema"])) + ")");
}

// The catalogue of that file; reports its problems. Throws Failure.
Catalogue readChecked(const std::string &file) {
    const Catalogue catalogue = readCatalogue(file);
    if (catalogue.problems.empty())
        return catalogue;
    for (const Problem &problem : catalogue.problems)
        note(describe(file, problem));
    throw Failure(Cause::CATALOGUE,
                  std::to_string(catalogue.problems.size()) +
                      " problems, the first: " + describe(file, catalogue.problems.front()));
}

std::string fileOf(const std::string &appId) {
    const std::string file = findCatalogue(appId);
    if (file.empty())
        throw explainUnreachable(appId, RPC_PORT_ERROR_IO_ERROR, 0);
    return file;
}

int runActions(const Options &options) {
    if (options.file.empty() == options.target.appId.empty())
        throw Failure(Cause::USAGE, "give either an APP_ID or --check FILE");
    const bool isCheck = !options.file.empty();
    const Catalogue catalogue = readChecked(isCheck ? options.file : fileOf(options.target.appId));
    if (options.json)
        print(dump(catalogue.document));
    else if (isCheck)
        print(options.file + ": " + std::to_string(catalogue.actions.size()) + " actions, " +
              paint(Colour::GREEN, "no problem"));
    else
        printActions(catalogue);
    return EXIT_CODE_SUCCESS;
}

} // namespace

const Command ACTIONS = {
    "actions", "List the actions that an application declares",
    [](CLI::App &arguments, Options &options) {
        addAppId(arguments, options.target.appId);
        arguments.add_option("--check", options.file, "Check this catalogue instead")
            ->type_name("FILE");
    },
    runActions};

} // namespace nelvoctl
