// SPDX-License-Identifier: Apache-2.0
// call and state: one request, one answer.
#include <nlohmann/json.hpp>

#include "catalogue.h"
#include "commands.h"
#include "near.h"
#include "output.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

json toJson(const nelvo::client::Response &response) {
    json document(response.fields);
    if (response.requestId)
        document["requestId"] = *response.requestId;
    return document;
}

// Indents a result that is JSON; prints any other text as it is.
std::string forPeople(const std::string &text) {
    const json document = json::parse(text, nullptr, false);
    std::string lines, line;
    if (document.is_structured())
        return dump(document, 2);
    for (char character : text + "\n") {
        if (character != '\n') {
            line += character;
            continue;
        }
        lines += (lines.empty() ? "" : "\n") + printable(line);
        line.clear();
    }
    return lines;
}

int runCall(const Options &options) {
    return printAnswer(options, options.actionId,
                       exchange(options.target, options.actionId, options.params));
}

int runState(const Options &options) {
    return printAnswer(options, "state", exchange(options.target, nelvo::client::STATE_ACTION_ID));
}

} // namespace

int printAnswer(const Options &options, const std::string &request,
                const nelvo::client::Response &response) {
    auto failure = failureOf(response, options.target.appId);
    if (failure && failure->cause == Cause::NO_CALLBACK && request != "state")
        failure->message += suggestion(catalogueOf(options.target.appId).ids(), request);
    if (isTerminal() && !options.json) {
        for (const char *key : {"result", "appContext"})
            if (!response.field(key).empty())
                print(forPeople(response.field(key)));
        if (!failure)
            print(paint(Colour::GREEN, "ok") + "  " + printable(request));
    } else {
        json document = toJson(response);
        if (failure && options.json)
            document["error"] = nelvoctl::toJson(*failure);
        print(dump(document));
    }
    return failure ? report(*failure, false) : EXIT_CODE_SUCCESS;
}

const Command CALL = {"call", "Ask an application to perform an action",
                      [](CLI::App &arguments, Options &options) {
                          addTarget(arguments, options);
                          addAction(arguments, options);
                      },
                      runCall};

const Command STATE = {"state", "Ask an application for its state", addTarget, runState};

} // namespace nelvoctl
