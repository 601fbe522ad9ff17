// SPDX-License-Identifier: Apache-2.0
#include "diagnosis.h"

#include <cstdio>
#include <fstream>

#include <sys/stat.h>

#include <Ecore.h>

#include "processes.h"
#include "runtime_dir.h"
#include "session.h"

namespace nelvoctl {

const char *const ALLOW_LIST_FILE = "/usr/share/nelvo/allow_list.dat";

namespace {

constexpr double PROBE_SECONDS = 4;
constexpr double LIBRARY_SECONDS = 30; // the library has given up itself by then

// Why a running process cannot be connected to.
Failure explainDeaf(const std::string &appId, const AppProcess &process) {
    const std::string who = appId + " runs as process " + std::to_string(process.pid);
    if (!process.isHere())
        return {Cause::OTHER_DIRECTORY, who + " with the runtime directory " + process.runtimeDir};
    const Manifest manifest = readManifest(process.manifest, appId);
    if (!manifest.isAdmitted())
        return {Cause::SDK_VERSION, who + ", whose " + process.manifest + " " + manifest.found()};
    return {Cause::NOT_INITIALISED, who + ", which does not listen"};
}

} // namespace

std::string shown(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.3g s", seconds);
    return text;
}

Admission admissionOf(const std::string &clientId) {
    std::ifstream file(ALLOW_LIST_FILE);
    if (!file.is_open())
        return Admission::NO_LIST;
    for (std::string line; std::getline(file, line);)
        if (line == clientId)
            return Admission::LISTED;
    return Admission::NOT_LISTED;
}

Probe probe(const std::string &appId, double patienceSeconds) {
    Probe result;
    bool ended = false;
    nelvo::client::MessageProxy proxy;
    proxy.events.connected = [&] {
        result.answers = true;
        ecore_main_loop_quit();
    };
    proxy.events.rejected = [&] {
        ended = true;
        ecore_main_loop_quit();
    };
    const double start = ecore_time_get();
    result.error = proxy.connect(appId);
    if (result.error == RPC_PORT_ERROR_NONE)
        runLoopUntil(patienceSeconds, [&] { return result.answers || ended; });
    result.seconds = ecore_time_get() - start;
    return result;
}

Failure explainUnreachable(const std::string &appId, int error) {
    if (error == RPC_PORT_ERROR_INVALID_PARAMETER)
        return {Cause::USAGE, "\"" + appId + "\" is not an application id"};
    if (error == RPC_PORT_ERROR_PERMISSION_DENIED)
        return {Cause::OTHER_USER, appId + " runs as another user"};
    const std::string dir = runtimeDir();
    if (const std::string fault = faultOf(dir); !fault.empty())
        return {Cause::RUNTIME_DIRECTORY, "the runtime directory " + dir + " " + fault};
    struct stat state {};
    const bool died = lstat((dir + "/" + appId + ":message").c_str(), &state) == 0;
    const auto processes = findProcesses(appId);
    if (!processes.empty() && (processes.front().isHere() || !died))
        return explainDeaf(appId, processes.front());
    return {Cause::NOBODY_LISTENS, "nobody serves \"message\" as " + appId + " in " + dir +
                                       (died ? "; it has died and left its socket behind" : "")};
}

Failure explainStuck(const std::string &appId, double seconds) {
    std::string message =
        "the main loop of " + appId + " has not responded within " + shown(seconds);
    const auto processes = findProcesses(appId);
    if (!processes.empty() && processes.front().isHere())
        message += "; its process " + std::to_string(processes.front().pid) + " " +
                   processes.front().activity();
    return {Cause::MAIN_LOOP_STUCK, message};
}

Failure explainRefusedCallback(const Target &target, bool withoutReply) {
    const std::string &app = target.appId;
    if (withoutReply) {
        const Probe now = probe(app, PROBE_SECONDS);
        if (now.error != RPC_PORT_ERROR_NONE)
            return {Cause::CONNECTION_LOST, "lost the connection to " + app};
        if (!now.answers)
            return explainStuck(app, PROBE_SECONDS);
    } else if (admissionOf(target.clientId) == Admission::NOT_LISTED) {
        return {Cause::NOT_ADMITTED, app + " does not admit " + target.clientId +
                                         ", which is not in " + ALLOW_LIST_FILE};
    }
    return {Cause::CALLBACK_REFUSED, app + " refused the response callback of " + target.clientId};
}

Failure explainSilence(const Target &target) {
    const std::string waited = "no answer within " + shown(target.timeoutSeconds);
    const Probe now = probe(target.appId, PROBE_SECONDS);
    if (now.error != RPC_PORT_ERROR_NONE)
        return {Cause::CONNECTION_LOST, target.appId + " has ended"};
    if (!now.answers)
        return explainStuck(target.appId, target.timeoutSeconds + now.seconds);
    if (target.timeoutSeconds > LIBRARY_SECONDS)
        return {Cause::SUPERSEDED, waited + " although the main loop of " + target.appId +
                                       " responds; or the library was stopped and started again, "
                                       "or memory was too short for the answer"};
    return {Cause::CLIENT_TIMEOUT, waited + " although the main loop of " + target.appId +
                                       " responds: it is still working on the request, or a newer "
                                       "request overtook this one"};
}

} // namespace nelvoctl
