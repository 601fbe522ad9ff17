// SPDX-License-Identifier: Apache-2.0
#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/random.h>

#include <app_common.h>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "exchange.h"

using namespace nelvoctl;

namespace {

int fail(ExitCode code, const std::string &error) {
    std::fprintf(stderr, "nelvoctl: %s\n", error.c_str());
    return code;
}

// Must come before any other use of the platform, which asks for our id once.
bool becomeClient(const std::string &clientId) {
    char *id = nullptr;
    if (setenv("NELVO_HOST_APP_ID", clientId.c_str(), 1) != 0 || app_get_id(&id) != 0)
        return false;
    bool became = clientId == id;
    std::free(id);
    return became;
}

// Applications' texts are not always UTF-8; what is not is replaced, not refused.
std::string toJson(const nelvo::client::Response &response) {
    nlohmann::json json(response.fields);
    if (response.requestId)
        json["requestId"] = *response.requestId;
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

int perform(Call &call) {
    if (!becomeClient(call.clientId))
        return fail(EXIT_CODE_USAGE, "\"" + call.clientId +
                                         "\" is not an application id; give --as letters, "
                                         "digits, '.', '_' and '-'");
    if (getrandom(&call.request.requestId, sizeof call.request.requestId, 0) !=
        static_cast<ssize_t>(sizeof call.request.requestId))
        return fail(EXIT_CODE_UNREACHABLE, "no random request id to be had; try again");

    Outcome outcome = exchange(call);
    if (!outcome.error.empty())
        return fail(outcome.code, outcome.error);
    if (std::printf("%s\n", toJson(outcome.response).c_str()) < 0 || std::fflush(stdout) != 0)
        return fail(EXIT_CODE_FAILURE, "could not print the answer; see what stdout leads to");
    return outcome.code;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App parser("Drives an application through its Nelvo library and prints its answer.\n"
                    "Exit code: 0 done, 1 the answer is a failure, 2 bad arguments, "
                    "3 application not reached, 4 no answer in time.",
                    "nelvoctl");
    Call call;
    try {
        parser.require_subcommand(1);
        addCommands(parser, call);
        parser.parse(argc, argv);
        return perform(call);
    } catch (const CLI::ParseError &e) {
        if (e.get_exit_code() == 0)
            return parser.exit(e);
        return fail(EXIT_CODE_USAGE, std::string(e.what()) + "; see nelvoctl --help");
    } catch (const std::exception &e) {
        return fail(EXIT_CODE_UNREACHABLE, e.what());
    }
}
