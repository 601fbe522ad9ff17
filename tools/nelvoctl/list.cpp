// SPDX-License-Identifier: Apache-2.0
// list: the applications that can be reached, and whether each answers.
#include <algorithm>
#include <cstdio>

#include <nlohmann/json.hpp>
#include <rpc-port.h>

#include "commands.h"
#include "diagnosis.h"
#include "output.h"
#include "runtime_dir.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

std::string milliseconds(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f ms", 1000 * seconds);
    return text;
}

void printApplications(const json &applications) {
    std::size_t width = 0;
    for (const json &app : applications)
        width = std::max(width, app["appId"].get<std::string>().size());
    for (const json &app : applications) {
        const bool answers = app["answers"];
        print(padded(printable(app["appId"]), static_cast<int>(width)) + "  " +
              (answers ? paint(Colour::GREEN, "answers") + "  in " +
                             milliseconds(app["seconds"].get<double>())
                       : paint(Colour::RED, "main loop stuck")));
    }
}

int runList(const Options &options) {
    const std::string dir = runtimeDir();
    if (const std::string fault = faultOf(dir); !fault.empty())
        throw Failure(Cause::RUNTIME_DIRECTORY, "the runtime directory " + dir + " " + fault);
    json applications = json::array();
    for (const std::string &appId : listedApps(dir)) {
        const Probe now = probe(appId, options.target.timeoutSeconds);
        if (now.error == RPC_PORT_ERROR_OUT_OF_MEMORY)
            throw explainUnreachable(appId, now.error, now.reason);
        if (now.error == RPC_PORT_ERROR_NONE)
            applications.push_back(
                {{"appId", appId}, {"answers", now.answers}, {"seconds", now.seconds}});
    }
    if (options.json)
        print(dump({{"applications", applications}}));
    else
        printApplications(applications);
    if (applications.empty() && !options.json)
        note("no application listens in " + dir);
    return EXIT_CODE_SUCCESS;
}

} // namespace

const Command LIST = {"list", "List the applications that can be reached",
                      [](CLI::App &arguments, Options &options) {
                          options.target.timeoutSeconds = 1;
                          addSeconds(arguments, "--timeout", options.target.timeoutSeconds,
                                     "How long to wait for each")
                              ->capture_default_str();
                      },
                      runList};

} // namespace nelvoctl
