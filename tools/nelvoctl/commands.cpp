// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

#include <cmath>

namespace nelvoctl {

namespace {

const char *const DEFAULT_CLIENT_ID = "nelvo.client";

// Longer than the library waits for the application: its own failure is to arrive first.
constexpr double DEFAULT_TIMEOUT_SECONDS = 35.0;

void configureCall(CLI::App &arguments, Call &call) {
    arguments.add_option("ACTION_ID", call.request.actionId, "The action to perform")->required();
    arguments
        .add_option_function<std::string>(
            "PARAMS", [&call](const std::string &params) { call.request.actionParams = params; },
            "What the action expects, often JSON; put -- before it when it begins with -")
        ->type_name("TEXT");
}

void configureState(CLI::App &arguments, Call &call) {
    arguments.parse_complete_callback(
        [&call] { call.request.actionId = nelvo::client::STATE_ACTION_ID; });
}

std::string checkSeconds(const std::string &text) {
    double seconds = 0;
    if (CLI::detail::lexical_cast(text, seconds) && std::isfinite(seconds) && seconds > 0)
        return "";
    return "\"" + text + "\" is not a number of seconds above 0";
}

struct Command {
    const char *name;
    const char *summary;
    // Declares the arguments of its own; parsing stores them in the call.
    void (*configure)(CLI::App &arguments, Call &call);
};

const Command COMMANDS[] = {
    {"call", "Ask an application to perform an action", configureCall},
    {"state", "Ask an application for its state", configureState},
};

void addCommand(CLI::App &parser, const Command &command, Call &call) {
    CLI::App &arguments = *parser.add_subcommand(command.name, command.summary);
    arguments.add_option("APP_ID", call.appId, "The application to drive")->required();
    command.configure(arguments, call);
    arguments.add_option("--timeout", call.timeoutSeconds, "How long to wait for the answer")
        ->type_name("SECONDS")
        ->check(CLI::Validator(checkSeconds, ""))
        ->capture_default_str();
    arguments.add_option("--as", call.clientId, "The application id to present")
        ->type_name("CLIENT_ID")
        ->capture_default_str();
}

} // namespace

void addCommands(CLI::App &parser, Call &call) {
    call.clientId = DEFAULT_CLIENT_ID;
    call.timeoutSeconds = DEFAULT_TIMEOUT_SECONDS;
    for (const Command &command : COMMANDS)
        addCommand(parser, command, call);
}

} // namespace nelvoctl
