// SPDX-License-Identifier: Apache-2.0
#include "commands.h"

#include <cctype>
#include <cerrno>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>

#include <Ecore.h>
#include <host/app_id.h>
#include <host/runtime_dir.h>

#include "near.h"
#include "output.h"

namespace nelvoctl {

namespace {

const Command *const COMMANDS[] = {&LIST,  &ACTIONS, &CALL,  &STATE,  &WATCH,  &SHELL,
                                   &BENCH, &DOCTOR,  &TRACE, &RECORD, &REPLAY, &MCP};

constexpr std::size_t LARGEST_PARAMS = std::size_t{16} << 20;

std::string checkSeconds(const std::string &text) {
    double seconds = 0;
    if (CLI::detail::lexical_cast(text, seconds) && std::isfinite(seconds) && seconds > 0)
        return "";
    return "\"" + text + "\" is not a number above 0";
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

// The text itself, or what stdin ("-") or a file ("@FILE") holds. Throws Failure.
std::string readParams(const std::string &given) {
    if (given != "-" && given.rfind('@', 0) != 0)
        return given;
    std::ifstream file;
    if (given != "-")
        file.open(given.substr(1), std::ios::binary);
    std::istream &input = given == "-" ? std::cin : file;
    std::string text;
    char part[65536];
    while (text.size() <= LARGEST_PARAMS && input.good()) {
        input.read(part, sizeof part);
        text.append(part, static_cast<std::size_t>(input.gcount()));
    }
    const std::string name = given == "-" ? "stdin" : given.substr(1);
    if (!input.eof() && text.size() <= LARGEST_PARAMS)
        throw Failure(Cause::USAGE, name + " cannot be read: " + std::strerror(errno) +
                                        "; PARAMS that begin with @ name a file");
    if (text.size() > LARGEST_PARAMS)
        throw Failure(Cause::USAGE, name + " holds more than 16 MiB, the most that can be sent");
    if (text.find('\0') != std::string::npos)
        throw Failure(Cause::USAGE, name + " holds a zero byte, where PARAMS would end");
    return text;
}

int perform(const Command &command, const Options &options) {
    if (ecore_init() == 0)
        throw Failure(Cause::INTERNAL,
                      std::string("the main loop cannot be started: ") + std::strerror(errno));
    const std::unique_ptr<const Command, void (*)(const Command *)> loop(
        &command, [](const Command *) { ecore_shutdown(); });
    if (command.run != TRACE.run &&
        command.run != RECORD.run) // whose application is not to take our id over
        becomeClient(options.target.clientId);
    return command.run(options);
}

Failure noCommand(const std::string &word) {
    std::vector<std::string> names = {"help"};
    for (const Command *command : COMMANDS)
        names.emplace_back(command->name);
    return {Cause::USAGE, "there is no command \"" + word + "\"" + suggestion(names, word)};
}

// What is wrong with the arguments.
Failure explain(const CLI::ParseError &error, const CLI::App &parser) {
    const std::vector<std::string> unknown = parser.remaining();
    if (!parser.get_subcommands().empty() ||
        (unknown.empty() && error.get_name() != "RequiredError"))
        return {Cause::USAGE, error.what()};
    if (unknown.empty())
        return {Cause::USAGE, "no command is given"};
    if (unknown.front().rfind('-', 0) == 0)
        return {Cause::USAGE, "there is no option " + unknown.front()};
    return noCommand(unknown.front());
}

// Throws Failure.
std::string helpOn(const std::string &topic, const CLI::App &parser) {
    if (topic.empty())
        return parser.help();
    if (topic == "causes")
        return causeTable();
    try {
        return parser.get_subcommand(topic)->help("nelvoctl");
    } catch (const CLI::OptionNotFound &) {
        throw noCommand(topic);
    }
}

int parseAndRun(CLI::App &parser, int argc, const char *const *argv) {
    bool isJson = false;
    std::string format;
    parser.add_flag("--json", isJson, "One JSON document on stdout, errors too");
    parser.add_option("-o,--output", format, "json, as --json, or text")
        ->check(CLI::IsMember({"json", "text"}));
    parser.set_version_flag("--version", "nelvoctl " NELVOCTL_VERSION ", wire protocol " +
                                             std::to_string(HOST_PROTOCOL_VERSION));
    parser.require_subcommand(1)->fallthrough();
    std::map<const Command *, Options> options; // each has its own defaults
    for (const Command *command : COMMANDS)
        command->configure(*parser.add_subcommand(command->name, command->summary),
                           options[command]);
    parser.add_subcommand("help", "Explain a command, or the causes that messages name");
    try {
        if (argc > 1 && argv[1] == std::string("help"))
            return page(helpOn(argc > 2 ? argv[2] : "", parser)), EXIT_CODE_SUCCESS;
        parser.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        return page(parser.help()), EXIT_CODE_SUCCESS;
    } catch (const CLI::ParseError &e) {
        if (e.get_exit_code() == 0)
            return parser.exit(e);
        throw explain(e, parser);
    }
    for (auto &[command, chosen] : options) {
        if (!parser.got_subcommand(command->name))
            continue;
        chosen.json = isJson || format == "json";
        return perform(*command, chosen);
    }
    return EXIT_CODE_USAGE; // not reached: the parser wants a command
}

// Reported if the arguments cannot be parsed.
bool asksForJson(int argc, const char *const *argv) {
    for (int i = 1; i < argc && std::strcmp(argv[i], "--") != 0; i++) {
        const std::string word = argv[i], before = argv[i - 1];
        if (word == "--json" || word == "-ojson" || word == "--output=json" ||
            (word == "json" && (before == "-o" || before == "--output")))
            return true;
    }
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
            "PARAMS",
            [&options](const std::string &params) { options.params = readParams(params); },
            "What the action expects, often JSON; or - for stdin, or @FILE; -- before a text with "
            "-")
        ->type_name("TEXT");
}

int run(int argc, const char *const *argv) {
    std::signal(SIGPIPE, SIG_DFL); // a reader that has seen enough, such as head, is no failure
    std::setlocale(LC_CTYPE, "C.UTF-8"); // what is printable
    const bool isJson = asksForJson(argc, argv);
    try {
        try {
            CLI::App parser("Drives applications through their Nelvo library.", "nelvoctl");
            parser.footer(EXIT_CODES);
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
