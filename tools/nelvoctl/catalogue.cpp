// SPDX-License-Identifier: Apache-2.0
#include "catalogue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "cause.h"
#include "client/envelope.h"
#include "json_rpc.h"
#include "processes.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

constexpr std::uintmax_t LARGEST_CATALOGUE = 1024 * 1024;

// Appends what is wrong in the schemas of a catalogue that fits its own schema.
void checkSchema(const json &owner, const char *name, const std::string &pointer,
                 std::vector<Problem> &problems) {
    if (!owner.contains(name))
        return;
    const std::string place = pointer + "/" + name;
    const auto found = findReferenceProblems(owner[name], place);
    problems.insert(problems.end(), found.begin(), found.end());
    if (!found.empty())
        return; // or the validator would follow the references
    try {
        const Schema compiled(owner[name]);
    } catch (const std::exception &e) {
        problems.push_back({place, std::string("is no schema: ") + e.what()});
    }
}

std::vector<Problem> findProblems(const json &document) {
    static const Schema schema(json::parse(CATALOGUE_SCHEMA));
    std::vector<Problem> problems = schema.violations(document);
    if (!problems.empty())
        return problems;
    std::set<std::string> ids;
    for (std::size_t i = 0; i < document["tools"].size(); ++i) {
        const json &tool = document["tools"][i];
        const std::string pointer = "/tools/" + std::to_string(i);
        checkSchema(tool, "inputSchema", pointer, problems);
        checkSchema(tool, "outputSchema", pointer, problems);
        if (!ids.insert(tool["name"]).second)
            problems.push_back({pointer + "/name", "is declared twice: " + tool["name"].dump()});
    }
    checkSchema(document.value("state", json::object()), "schema", "/state", problems);
    return problems;
}

Action readTool(const json &tool) {
    const json properties = tool["inputSchema"].value("properties", json::object());
    Action action{tool["name"], tool, Schema(tool["inputSchema"]), {}};
    if (tool.contains("outputSchema"))
        action.output = Schema(tool["outputSchema"]);
    action.takesText = properties.size() == 1 && properties.contains("actionParams") &&
                       properties["actionParams"].is_object() &&
                       properties["actionParams"].value("type", json()) == "string";
    return action;
}

} // namespace

std::optional<std::string> Action::paramsFor(const json &arguments) const {
    if (arguments.empty())
        return std::nullopt;
    return takesText ? arguments["actionParams"].get<std::string>() : arguments.dump();
}

const Action *Catalogue::find(const std::string &id) const {
    const auto found = std::find_if(actions.begin(), actions.end(),
                                    [&](const Action &action) { return action.id == id; });
    return found == actions.end() ? nullptr : &*found;
}

Catalogue parseCatalogue(const std::string &text) {
    Catalogue catalogue;
    try {
        const json document = parseJson(text);
        catalogue.problems = findProblems(document);
        if (!catalogue.problems.empty())
            return catalogue;
        catalogue.document = document;
        for (const json &tool : document["tools"])
            catalogue.actions.push_back(readTool(tool));
    } catch (const json::exception &e) {
        const std::string what = e.what(); // "[json.exception....] parse error at line ..."
        catalogue.problems.push_back({"", "is not JSON: " + what.substr(what.find("] ") + 2)});
    }
    return catalogue;
}

Catalogue readCatalogue(const std::string &path) {
    std::error_code error;
    const bool isFile = std::filesystem::is_regular_file(path, error);
    std::ifstream file(path, std::ios::binary);
    if (error || !isFile || !file)
        throw Failure(Cause::CATALOGUE, path + " cannot be read: " +
                                            (error    ? error.message()
                                             : isFile ? std::strerror(errno)
                                                      : "it is no file"));
    if (std::filesystem::file_size(path, error) > LARGEST_CATALOGUE)
        throw Failure(Cause::CATALOGUE, path + " is larger than 1 MiB");
    return parseCatalogue({std::istreambuf_iterator<char>(file), {}});
}

std::string findCatalogue(const std::string &appId) {
    const auto processes = findProcesses(appId);
    return processes.empty() ? "" : processes.front().actions;
}

Catalogue catalogueOf(const std::string &appId) {
    try {
        return readCatalogue(findCatalogue(appId));
    } catch (const Failure &) {
        return {};
    }
}

std::string describe(const std::string &file, const Problem &problem) {
    return file + ": " + (problem.pointer.empty() ? "" : problem.pointer + ": ") + problem.text;
}

std::vector<std::string> Catalogue::ids() const {
    std::vector<std::string> ids;
    for (const Action &action : actions)
        ids.push_back(action.id);
    return ids;
}

} // namespace nelvoctl
