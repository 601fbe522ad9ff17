// SPDX-License-Identifier: Apache-2.0
#include "cause.h"

#include <cstdio>

namespace nelvoctl {

namespace {

// In the order of the enumeration.
const CauseEntry ENTRIES[] = {
    {Cause::FAILURE, "failure", EXIT_CODE_FAILURE, "the application answered with a failure",
     "see its status_msg, and the application's log (NELVO_LOG=debug)"},
    {Cause::NO_CALLBACK, "no-callback", EXIT_CODE_FAILURE,
     "the application has registered no callback for this request",
     "register its callback in the application, or check the spelling of the action id"},
    {Cause::APP_TIMEOUT, "app-timeout", EXIT_CODE_FAILURE,
     "the application's callback was called and reported no outcome within 30 s",
     "let the application call nelvo_complete_action_execution() or "
     "nelvo_complete_app_state_request() in time"},
    {Cause::OUTPUT, "output", EXIT_CODE_FAILURE, "the output could not be written",
     "check where stdout leads: a full disk, or a file without write permission"},
    {Cause::CATALOGUE, "catalogue", EXIT_CODE_FAILURE,
     "the application's catalogue of actions cannot be used",
     "correct what is named and look again with nelvoctl actions --check FILE"},
    {Cause::DIFFERENT, "different", EXIT_CODE_FAILURE,
     "the application's answers differ from those of the session",
     "see the lines above: - was recorded, + came now; --ignore leaves a field out"},
    {Cause::USAGE, "usage", EXIT_CODE_USAGE, "bad arguments", "see nelvoctl --help"},
    {Cause::NOT_STARTED, "not-started", EXIT_CODE_UNREACHABLE, "the program cannot be started",
     "give its path or a name in PATH, and see that it can be executed"},
    {Cause::NOBODY_LISTENS, "nobody-listens", EXIT_CODE_UNREACHABLE,
     "no application of that id listens",
     "start that application first, with the same NELVO_HOST_RUNTIME_DIR, or wait for it with "
     "--wait"},
    {Cause::NOT_INITIALISED, "not-initialised", EXIT_CODE_UNREACHABLE,
     "the application runs and does not listen",
     "let it call nelvo_initialize(), and look at what that returns"},
    {Cause::SDK_VERSION, "sdk-version", EXIT_CODE_UNREACHABLE,
     "the SDK version in the application's manifest is not admitted",
     "put the metadata key http://developer.tizen.org/tizen/metadata/nelvo/sdk/version with the "
     "value 1.0 into its manifest and start it again"},
    {Cause::OTHER_DIRECTORY, "other-directory", EXIT_CODE_UNREACHABLE,
     "the application uses another runtime directory",
     "set NELVO_HOST_RUNTIME_DIR to the directory that it uses"},
    {Cause::RUNTIME_DIRECTORY, "runtime-directory", EXIT_CODE_UNREACHABLE,
     "the runtime directory cannot be used",
     "make it a directory of your own with mode 0700, or name another one in "
     "NELVO_HOST_RUNTIME_DIR"},
    {Cause::OTHER_USER, "other-user", EXIT_CODE_UNREACHABLE,
     "the application belongs to another user", "run nelvoctl as that user"},
    {Cause::REFUSED, "refused", EXIT_CODE_UNREACHABLE,
     "the application closed the connection during the handshake",
     "see its log: it may have too many connections or no descriptors left"},
    {Cause::NOT_ADMITTED, "not-admitted", EXIT_CODE_UNREACHABLE,
     "the allow list does not name this client",
     "add that id as a line of its own and start the application again, or choose an id that is "
     "listed with --as"},
    {Cause::CALLBACK_REFUSED, "callback-refused", EXIT_CODE_UNREACHABLE,
     "the application refused the response callback",
     "see its log (NELVO_LOG=info); if its allow list was changed, start it again"},
    {Cause::CONNECTION_LOST, "connection-lost", EXIT_CODE_UNREACHABLE,
     "the connection ended before the answer",
     "see whether the application crashed, ended or called nelvo_deinitialize()"},
    {Cause::INTERNAL, "internal", EXIT_CODE_UNREACHABLE, "nelvoctl itself failed",
     "see the log above, and try again with more memory and descriptors"},
    {Cause::MAIN_LOOP_STUCK, "main-loop-stuck", EXIT_CODE_SILENT,
     "the application's main loop does not respond",
     "continue it if it is stopped, else attach a debugger to see which callback does not return"},
    {Cause::CLIENT_TIMEOUT, "client-timeout", EXIT_CODE_SILENT,
     "nelvoctl gave up before the application's own 30 s were over",
     "wait longer with --timeout; more than 30 s let the library's own failure arrive"},
    {Cause::SUPERSEDED, "superseded", EXIT_CODE_SILENT,
     "no answer although the 30 s are over: most likely a newer request overtook this one",
     "ask again while no other client does; nelvoctl trace shows who asks"},
};

} // namespace

const char *const EXIT_CODES = "Exit codes:\n"
                               "  0  success\n"
                               "  1  the application answered with a failure, or output was lost\n"
                               "  2  bad arguments\n"
                               "  3  the application could not be reached\n"
                               "  4  no answer in time\n"
                               "Messages name the cause: see nelvoctl help causes.\n";

const CauseEntry &entryOf(Cause cause) {
    return ENTRIES[static_cast<std::size_t>(cause)];
}

std::string causeTable() {
    std::string table = "What messages name as the cause, with the exit code:\n";
    for (const CauseEntry &entry : ENTRIES) {
        char line[160];
        std::snprintf(line, sizeof line, "  %d  %-18s %s\n", entry.exitCode, entry.name,
                      entry.meaning);
        table += line;
    }
    return table;
}

} // namespace nelvoctl
