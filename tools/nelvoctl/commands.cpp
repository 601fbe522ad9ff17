// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

#include <cctype>
#include <clocale>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>

#include <Ecore.h>
#include <host/app_id.h>

#include "output.h"

namespace nelvoctl {

namespace {

const Command *const COMMANDS[] = {&LIST,  &ACTIONS, &CALL,   &STATE, &WATCH,
                                   &SHELL, &BENCH,   &DOCTOR, &TRACE, &MCP};

std::string checkSeconds(const std::string &text) {
    double seconds = 0;
    if (CLI::detail::lexical_cast(text, seconds) && std::isfinite(seconds) && seconds > 0)
        return "";
    return "\"" + text + "\" is not a number of seconds above 0";
}

// The platform checks everything else about an id.
std::string checkId(const std::string &text) {
    for (char character : text)
        if (!std::isalnum(static_cast<unsigned char>(character)) && !std::strchr("._-", character))
            return "\"" + text + "\" is not an application id; give the one in its manifest";
    return "";
}

// Must come before any connection, since the platform presents the id of the process.
void becomeClient(const std::string &clientId) {
    if (host_set_app_id(clientId.c_str()) != 0)
        throw Failure(Cause::USAGE, "\"" + clientId +
                                        "\" is not an application id; give --as letters, digits, "
                                        "'.', '_' and '-'");
}

int perform(const Command &command, const Options &options) {
    if (ecore_init() == 0)
        throw Failure(Cause::INTERNAL, "the main loop cannot be started");
    const std::unique_ptr<const Command, void (*)(const Command *)> loop(
        &command, [](const Command *) { ecore_shutdown(); });
    if (command.run != TRACE.run) // whose application is not to take our id over
        becomeClient(options.target.clientId);
    return command.run(options);
}

int parseAndRun(CLI::App &parser, int argc, const char *const *argv) {
    bool isJson = false;
    parser.add_flag("--json", isJson, "One JSON document on stdout, errors too");
    parser.require_subcommand(1)->fallthrough();
    std::map<const Command *, Options> options; // each has its own defaults
    for (const Command *command : COMMANDS)
        command->configure(*parser.add_subcommand(command->name, command->summary),
                           options[command]);
    try {
        parser.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        if (e.get_exit_code() == 0)
            return parser.exit(e);
        throw Failure(Cause::USAGE, e.what());
    }
    for (auto &[command, chosen] : options) {
        if (!parser.got_subcommand(command->name))
            continue;
        chosen.json = isJson;
        return perform(*command, chosen);
    }
    return EXIT_CODE_USAGE; // not reached: the parser wants a command
}

// Reported if the arguments cannot be parsed.
bool asksForJson(int argc, const char *const *argv) {
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; i++)
        if (std::strcmp(argv[i], "--json") == 0)
            return true;
    return false;
}

} // namespace

CLI::Option *addSeconds(CLI::App &arguments, const char *name, double &seconds, const char *help) {
    return arguments.add_option(name, seconds, help)
        ->type_name("SECONDS")
        ->check(CLI::Validator(checkSeconds, ""));
}

CLI::Option *addAppId(CLI::App &arguments, std::string &appId) {
    return arguments.add_option("APP_ID", appId, "The application to drive")
        ->check(CLI::Validator(checkId, ""));
}

void addTarget(CLI::App &arguments, Options &options) {
    Target &target = options.target;
    addAppId(arguments, target.appId)->required();
    addRequest(arguments, target);
    addSeconds(arguments, "--wait", target.waitSeconds,
               "How long the application may take to start");
}

void addAppIds(CLI::App &arguments, std::vector<std::string> &appIds) {
    arguments.add_option("APP_ID", appIds, "The applications to drive; all that run if not given")
        ->check(CLI::Validator(checkId, ""));
}

void addRequest(CLI::App &arguments, Target &target) {
    addSeconds(arguments, "--timeout", target.timeoutSeconds, "How long to wait for the answer")
        ->capture_default_str();
    arguments.add_option("--as", target.clientId, "The application id to present")
        ->type_name("CLIENT_ID")
        ->capture_default_str();
}

void addAction(CLI::App &arguments, Options &options) {
    arguments.add_option("ACTION_ID", options.actionId, "The action to perform")->required();
    arguments
        .add_option_function<std::string>(
            "PARAMS", [&options](const std::string &params) { options.params = params; },
            "What the action expects, often JSON; put -- before it when it begins with -")
        ->type_name("TEXT");
}

int run(int argc, const char *const *argv) {
    std::setlocale(LC_CTYPE, "C.UTF-8"); // what is printable
    const bool isJson = asksForJson(argc, argv);
    try {
        try {
            CLI::App parser("Drives applications through their Nelvo library.", "nelvoctl");
            parser.footer(exitCodeTable());
            return parseAndRun(parser, argc, argv);
        } catch (const Failure &failure) {
            return report(failure, isJson);
        } catch (const std::exception &e) {
            return report(Failure(Cause::INTERNAL, e.what()), isJson);
        }
    } catch (const Failure &failure) { // the report cannot be written
        return report(failure, false);
    }
}

} // namespace nelvoctl
