// SPDX-License-Identifier: Apache-2.0
#include "catalogue.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <set>

#include "cause.h"
#include "client/envelope.h"
#include "json_rpc.h"
#include "processes.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

constexpr std::uintmax_t LARGEST_CATALOGUE = 1024 * 1024;

using Type = json::value_t;

struct Field {
    Type type;
    bool isRequired = false;
};
using Fields = std::map<std::string, Field>;

// Of a tool in the Model Context Protocol.
const Fields TOOL_FIELDS = {
    {"name", {Type::string, true}},   {"title", {Type::string}},
    {"description", {Type::string}},  {"inputSchema", {Type::object, true}},
    {"outputSchema", {Type::object}}, {"annotations", {Type::object}},
    {"icons", {Type::array}},         {"execution", {Type::object}},
    {"_meta", {Type::object}},
};
const Fields ANNOTATION_FIELDS = {
    {"title", {Type::string}},
    {"readOnlyHint", {Type::boolean}},
    {"destructiveHint", {Type::boolean}},
    {"idempotentHint", {Type::boolean}},
    {"openWorldHint", {Type::boolean}},
};
const Fields STATE_FIELDS = {
    {"title", {Type::string}}, {"description", {Type::string}}, {"schema", {Type::object}}};
// "state" is ours; the others come with what a server answers to tools/list, and mean nothing here.
const Fields CATALOGUE_FIELDS = {
    {"tools", {Type::array, true}},     {"state", {Type::object}},
    {"$comment", {Type::string}},       {"_meta", {Type::object}},
    {"nextCursor", {Type::string}},     {"resultType", {Type::string}},
    {"ttlMs", {Type::number_unsigned}}, {"cacheScope", {Type::string}},
};

// Returns whether all that is there has the right type.
bool checkFields(const Fields &fields, const json &object, const std::string &pointer,
                 std::vector<Problem> &problems) {
    const std::size_t before = problems.size();
    if (!object.is_object()) {
        problems.push_back({pointer, "must be an object"});
        return false;
    }
    for (const auto &[name, field] : fields) {
        if (object.contains(name) && object[name].type() != field.type)
            problems.push_back({pointer + "/" + name, std::string("must be of the type ") +
                                                          json(field.type).type_name()});
        else if (!object.contains(name) && field.isRequired)
            problems.push_back({pointer, "has no \"" + name + "\"; add it"});
    }
    for (const auto &[name, value] : object.items())
        if (fields.count(name) == 0)
            problems.push_back({(json::json_pointer(pointer) / name).to_string(),
                                "is not known here; check its spelling, or leave it out"});
    return problems.size() == before;
}

// Schemas of arguments and of structured answers describe objects.
Schema checkObjectSchema(const json &schema, const std::string &pointer,
                         std::vector<Problem> &problems) {
    if (schema.value("type", json()) != "object")
        problems.push_back({pointer, "must have \"type\": \"object\""});
    return Schema(schema, pointer, problems);
}

void readTool(const json &tool, const std::string &pointer, Catalogue &catalogue) {
    std::vector<Problem> &problems = catalogue.problems;
    if (!checkFields(TOOL_FIELDS, tool, pointer, problems))
        return;
    const std::string id = tool["name"];
    if (id.empty() || id == nelvo::client::STATE_ACTION_ID)
        problems.push_back({pointer + "/name", "cannot be the id of an action; choose another"});
    if (catalogue.find(id))
        problems.push_back({pointer + "/name", "\"" + id + "\" is declared twice; remove one"});
    if (tool.contains("annotations"))
        checkFields(ANNOTATION_FIELDS, tool["annotations"], pointer + "/annotations", problems);
    const json &input = tool["inputSchema"];
    Action action{id, tool, checkObjectSchema(input, pointer + "/inputSchema", problems), {}};
    if (tool.contains("outputSchema"))
        action.output =
            checkObjectSchema(tool["outputSchema"], pointer + "/outputSchema", problems);
    const json properties = input.value("properties", json::object());
    action.takesText = properties.size() == 1 && properties.contains("actionParams") &&
                       properties["actionParams"].is_object() &&
                       properties["actionParams"].value("type", json()) == "string";
    catalogue.actions.push_back(std::move(action));
}

void readDocument(Catalogue &catalogue) {
    const json &document = catalogue.document;
    if (!checkFields(CATALOGUE_FIELDS, document, "", catalogue.problems))
        return;
    for (std::size_t i = 0; i < document["tools"].size(); ++i)
        readTool(document["tools"][i], "/tools/" + std::to_string(i), catalogue);
    if (document.contains("state") &&
        checkFields(STATE_FIELDS, document["state"], "/state", catalogue.problems) &&
        document["state"].contains("schema"))
        Schema(document["state"]["schema"], "/state/schema", catalogue.problems);
}

// How many letters must be added, removed or replaced to make one word of the other.
std::size_t distance(const std::string &from, const std::string &to) {
    std::vector<std::size_t> row(to.size() + 1);
    for (std::size_t j = 0; j <= to.size(); ++j)
        row[j] = j;
    for (std::size_t i = 1; i <= from.size(); ++i) {
        std::size_t diagonal = std::exchange(row[0], i);
        for (std::size_t j = 1; j <= to.size(); ++j) {
            const std::size_t replaced = diagonal + (from[i - 1] != to[j - 1]);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row.back();
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
        catalogue.document = parseJson(text);
        readDocument(catalogue);
    } catch (const json::exception &e) {
        const std::string what = e.what(); // "[json.exception....] parse error at line ..."
        catalogue.problems.push_back({"", "is not JSON: " + what.substr(what.find("] ") + 2)});
    }
    if (!catalogue.problems.empty()) {
        catalogue.actions.clear();
        catalogue.document = json::object();
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

std::string suggestion(const Catalogue &catalogue, const std::string &actionId) {
    std::string near;
    for (const Action &action : catalogue.actions)
        if (action.id != actionId &&
            distance(action.id, actionId) <= std::max<std::size_t>(1, action.id.size() / 3))
            near += (near.empty() ? "\"" : " or \"") + action.id + "\"";
    return near.empty() ? "" : "; did you mean " + near + "?";
}

} // namespace nelvoctl
