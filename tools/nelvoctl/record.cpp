// SPDX-License-Identifier: Apache-2.0
// record and replay: what clients ask of an application, and what they get, kept and compared.
#include <cstdio>
#include <stdexcept>

#include <Ecore.h>
#include <host/app_id.h>

#include "client/replay.h"
#include "commands.h"
#include "output.h"
#include "recorder.h"
#include "subprocess.h"

namespace nelvoctl {

namespace {

int runRecord(const Options &options) {
    Recorder recorder(options.file);
    const int status =
        runAndRead(options.program, {},
                   {[](const std::string &line) { std::fprintf(stderr, "%s\n", line.c_str()); },
                    [] {}, [&](const TapEvent &event) { recorder.add(event); }});
    if (status != 0)
        throw Failure(Cause::FAILURE, explainEnd(options.program[0], status));
    return EXIT_CODE_SUCCESS;
}

int runReplay(const Options &options) {
    nelvo::client::Replay::Settings settings;
    settings.appId = options.target.appId;
    settings.speed = options.isFast ? 0 : options.speed;
    settings.patienceSeconds = options.target.timeoutSeconds;
    settings.ignored = options.ignored;
    settings.wait = runLoopFor;
    settings.now = ecore_time_get;
    settings.introduce = [](nelvo::client::MessageProxy &, const std::string &client) {
        if (host_set_app_id(client.c_str()) != 0)
            throw Failure(Cause::USAGE, "\"" + client + "\" in the session is no client's id");
    };
    settings.woken = ecore_main_loop_quit;
    std::vector<std::string> differences;
    try {
        differences =
            nelvo::client::Replay(settings).play(nelvo::client::readSession(options.file));
    } catch (const std::runtime_error &problem) {
        throw Failure(Cause::USAGE, problem.what());
    } catch (const std::invalid_argument &problem) {
        throw Failure(Cause::USAGE, problem.what());
    }
    for (const std::string &line : differences)
        if (!options.json)
            print(paint(line[0] == '+'   ? Colour::GREEN
                        : line[0] == '-' ? Colour::RED
                                         : Colour::DIM,
                        printable(line)));
    if (options.json)
        print(dump({{"differences", differences}}));
    if (!differences.empty())
        throw Failure(Cause::DIFFERENT,
                      options.target.appId + " answers differently from " + options.file);
    return EXIT_CODE_SUCCESS;
}

} // namespace

const Command RECORD = {
    "record", "Run an application and keep what its clients ask and get",
    [](CLI::App &arguments, Options &options) {
        arguments.add_option("FILE", options.file, "The session to write")->required();
        arguments
            .add_option("APP", options.program, "The application and its arguments, behind --")
            ->required();
    },
    runRecord};

const Command REPLAY = {
    "replay", "Ask again what a session holds, and compare the answers",
    [](CLI::App &arguments, Options &options) {
        arguments.add_option("FILE", options.file, "The session to play")->required();
        addAppId(arguments, options.target.appId)->required();
        addSeconds(arguments, "--timeout", options.target.timeoutSeconds,
                   "How long an answer may be late")
            ->capture_default_str();
        addSeconds(arguments, "--speed", options.speed, "How much faster than recorded")
            ->type_name("FACTOR")
            ->capture_default_str();
        arguments.add_flag("--as-fast-as-possible", options.isFast, "Without the session's pauses");
        arguments
            .add_option("--ignore", options.ignored,
                        "What not to compare, such as /appContext/position")
            ->type_name("POINTER")
            ->allow_extra_args(false);
    },
    runReplay};

} // namespace nelvoctl
