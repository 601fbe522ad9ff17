// SPDX-License-Identifier: Apache-2.0
#include "mcp_tools.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "client/envelope.h"
#include "json_rpc.h"
#include "near.h"
#include "output.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

const char *const META_APP = "org.nelvo/appId";
const char *const META_ACTION = "org.nelvo/actionId";
const char *const META_ERROR = "org.nelvo/error";
constexpr std::size_t LONGEST_NAME = 64; // many assistants take no longer ones

json textResult(const std::string &text, bool isError) {
    return {{"content", {{{"type", "text"}, {"text", text}}}}, {"isError", isError}};
}

std::string asLines(const std::vector<Problem> &problems) {
    std::string lines;
    for (const Problem &problem : problems)
        lines += "\n" + (problem.pointer.empty() ? "(all)" : problem.pointer) + ": " + problem.text;
    return lines;
}

// What an application answered; a JSON object also as structured content.
json answerResult(const std::string &text, const std::optional<Schema> &output) {
    json document;
    try {
        document = parseJson(text);
    } catch (const json::exception &) {
        document = nullptr;
    }
    if (output)
        if (const auto problems = output->violations(document); !problems.empty())
            return textResult("The application's answer does not fit its outputSchema:" +
                                  asLines(problems) + "\nIt was: " + text,
                              true);
    json result = textResult(text, false);
    if (document.is_object())
        result["structuredContent"] = document;
    return result;
}

json listResult(const Applications &applications) {
    json list = json::array();
    for (const auto &application : applications.all()) {
        json actions = json::array();
        for (const Action &action : application->catalogue.actions)
            actions.push_back(action.id);
        list.push_back({{"appId", application->id()},
                        {"running", application->isPresent()},
                        {"actions", actions}});
    }
    const json document = {{"applications", list}};
    json result = textResult(document.dump(), false);
    result["structuredContent"] = document;
    return result;
}

} // namespace

json errorResult(const Failure &failure) {
    json result = textResult(std::string(failure.entry().name) + ": " + failure.message + "\n" +
                                 "What to do: " + failure.entry().remedy,
                             true);
    result["_meta"][META_ERROR] = toJson(failure);
    return result;
}

McpTools::McpTools(const Applications &applications, bool isReadOnly)
    : _applications(applications), _isReadOnly(isReadOnly) {
    update();
}

void McpTools::update() {
    _tools.clear();
    const bool isSingle = _applications.isSingle();
    json app = {
        {"app",
         {{"type", "string"}, {"description", "The application's id, such as demo.player"}}}};
    json call = {
        {"action", {{"type", "string"}, {"description", "The action's id"}}},
        {"params",
         {{"type", "string"}, {"description", "What the action expects, often JSON as text"}}}};
    json required = isSingle ? json::array() : json{"app"};
    if (isSingle)
        app = json::object();
    call.update(app);
    json callRequired = required;
    callRequired.push_back("action");
    if (!_isReadOnly)
        addAlways("call_action", "Call any action",
                  "Asks an application to perform an action by its id. Use it for an action that "
                  "no other tool offers; the others check their parameters.",
                  call, callRequired, false);
    addAlways("get_state", "Get the state",
              "Asks an application for its present state, often a JSON object.", app, required,
              true);
    if (!isSingle)
        addAlways("list_applications", "List the applications",
                  "Lists the applications that can be driven, whether each runs, and the ids of "
                  "the actions that it declares.",
                  json::object(), json::array(), true);
    for (const auto &application : _applications.all())
        addActions(*application);
}

void McpTools::addAlways(const char *name, const char *title, const char *description,
                         json properties, json required, bool isReadOnly) {
    const json schema = {{"type", "object"},
                         {"properties", std::move(properties)},
                         {"required", std::move(required)},
                         {"additionalProperties", false}};
    _tools.push_back({{{"name", name},
                       {"title", title},
                       {"description", description},
                       {"inputSchema", schema},
                       {"annotations", {{"readOnlyHint", isReadOnly}}}},
                      "",
                      name,
                      Schema(schema)});
}

void McpTools::addActions(const Application &application) {
    for (const Action &action : application.catalogue.actions) {
        json declaration = action.tool;
        const json hints = declaration.value("annotations", json::object());
        if (_isReadOnly && !hints.value("readOnlyHint", false))
            continue;
        const std::string prefix = _applications.isSingle() ? "" : application.id() + "__";
        declaration["name"] = freeName(prefix + action.id);
        declaration.erase("execution"); // would promise tasks, which there are none of
        declaration["_meta"][META_APP] = application.id();
        declaration["_meta"][META_ACTION] = action.id;
        _tools.push_back({declaration, application.id(), action.id, action.input,
                          _applications.isOffered(application)});
    }
}

// The name in letters that every assistant takes, with a number behind it if the name is taken.
std::string McpTools::freeName(const std::string &wanted) const {
    std::string name = wanted.substr(0, LONGEST_NAME);
    for (char &character : name)
        if (!std::isalnum(static_cast<unsigned char>(character)) && character != '-')
            character = '_';
    std::string numbered = name;
    for (int number = 2; find(numbered); ++number) {
        const std::string suffix = "_" + std::to_string(number);
        numbered = name.substr(0, LONGEST_NAME - suffix.size()) + suffix;
    }
    return numbered;
}

const McpTools::Tool *McpTools::find(const std::string &name) const {
    const auto found = std::find_if(_tools.begin(), _tools.end(), [&](const Tool &tool) {
        return tool.declaration["name"] == name;
    });
    return found == _tools.end() ? nullptr : &*found;
}

json McpTools::list() const {
    json tools = json::array();
    for (const Tool &tool : _tools)
        if (tool.isOffered)
            tools.push_back(tool.declaration);
    return tools;
}

std::function<void()> McpTools::call(const std::string &name, const json &arguments,
                                     const Done &done) const {
    const Tool *const tool = find(name);
    if (!tool)
        throw RpcError(RpcError::BAD_PARAMS,
                       "there is no tool \"" + name + "\"; tools/list tells which there are");
    if (const auto problems = tool->input.violations(arguments); !problems.empty()) {
        done(textResult("The arguments do not fit the schema of " + name + ":" + asLines(problems) +
                            "\nCorrect them and call the tool again.",
                        true));
        return nullptr;
    }
    if (tool->appId.empty())
        return callAlways(*tool, arguments, done);
    const Application *const application = _applications.find(tool->appId);
    const Action *const action =
        application ? application->catalogue.find(tool->actionId) : nullptr;
    return ask(tool->appId, tool->actionId, action ? action->paramsFor(arguments) : std::nullopt,
               done);
}

std::function<void()> McpTools::callAlways(const Tool &tool, const json &arguments,
                                           const Done &done) const {
    if (tool.actionId == "list_applications") {
        done(listResult(_applications));
        return nullptr;
    }
    const std::string appId = _applications.isSingle() ? _applications.all().front()->id()
                                                       : arguments["app"].get<std::string>();
    if (tool.actionId == "get_state")
        return ask(appId, nelvo::client::STATE_ACTION_ID, std::nullopt, done);
    std::optional<std::string> params;
    if (arguments.contains("params"))
        params = arguments["params"];
    return ask(appId, arguments["action"], params, done);
}

std::function<void()> McpTools::ask(const std::string &appId, const std::string &actionId,
                                    const std::optional<std::string> &params,
                                    const Done &done) const {
    Application *const application = _applications.find(appId);
    if (!application) {
        done(errorResult({Cause::NOBODY_LISTENS, appId + " is not among the applications here"}));
        return nullptr;
    }
    const Action *const action = application->catalogue.find(actionId);
    const std::optional<Schema> output = action ? action->output : std::nullopt;
    const auto answered = [this, appId, actionId, output, done](const Outcome &outcome) {
        if (!outcome.failure)
            return done(answerResult(outcome.text, output));
        Failure failure = *outcome.failure;
        if (const Application *const asked = _applications.find(appId);
            asked && failure.cause == Cause::NO_CALLBACK)
            failure.message += suggestion(asked->catalogue.ids(), actionId);
        done(errorResult(failure));
    };
    const int number = application->ask(actionId, params, answered);
    return [this, appId, number] {
        if (Application *const asked = _applications.find(appId))
            asked->cancel(number);
    };
}

} // namespace nelvoctl
