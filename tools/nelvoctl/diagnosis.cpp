// SPDX-License-Identifier: Apache-2.0
#include "diagnosis.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <utility>

#include <sys/stat.h>

#include <Ecore.h>

#include "link.h"
#include "near.h"
#include "processes.h"
#include "runtime_dir.h"

namespace nelvoctl {

const char *const ALLOW_LIST_FILE = "/usr/share/nelvo/allow_list.dat";

namespace {

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

void Prober::start(const std::string &appId, double patienceSeconds,
                   std::function<void(const Probe &)> done) {
    _done = std::move(done);
    _proxy.events.connected = [this] {
        _result.answers = true;
        finish();
    };
    _proxy.events.rejected = [this] { finish(); };
    _start = ecore_time_get();
    _result.error = _proxy.connect(appId);
    _result.reason = errno;
    if (_result.error != RPC_PORT_ERROR_NONE ||
        !_timer.start(patienceSeconds, [this] { finish(); }))
        finish();
}

void Prober::finish() {
    _timer.stop();
    _result.seconds = ecore_time_get() - _start;
    const Probe result = _result;
    if (const auto done = std::exchange(_done, nullptr))
        done(result);
}

Probe probe(const std::string &appId, double patienceSeconds) {
    Prober prober;
    bool isDone = false;
    Probe result;
    prober.start(appId, patienceSeconds, [&](const Probe &now) {
        result = now;
        isDone = true;
        ecore_main_loop_quit();
    });
    while (!isDone)
        ecore_main_loop_begin();
    return result;
}

Failure explainUnreachable(const std::string &appId, int error, int reason) {
    if (error == RPC_PORT_ERROR_OUT_OF_MEMORY)
        return {Cause::INTERNAL,
                "cannot connect to " + appId + ": " + std::strerror(reason != 0 ? reason : ENOMEM)};
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
                                       (died ? "; it has died and left its socket behind" : "") +
                                       suggestion(listedApps(dir), appId)};
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

Failure explainRefusedCallback(const Target &target) {
    const std::string &app = target.appId;
    if (admissionOf(target.clientId) == Admission::NOT_LISTED)
        return {Cause::NOT_ADMITTED, app + " does not admit " + target.clientId +
                                         ", which is not in " + ALLOW_LIST_FILE};
    return {Cause::CALLBACK_REFUSED, app + " refused the response callback of " + target.clientId};
}

Failure explainNoReply(const Target &target, const Probe &now) {
    const std::string &app = target.appId;
    if (now.error == RPC_PORT_ERROR_OUT_OF_MEMORY)
        return explainUnreachable(app, now.error, now.reason);
    if (now.error != RPC_PORT_ERROR_NONE)
        return {Cause::CONNECTION_LOST, "lost the connection to " + app};
    if (!now.answers)
        return explainStuck(app, now.seconds);
    return {Cause::CALLBACK_REFUSED, app + " refused the response callback of " + target.clientId};
}

Failure explainSilence(const Target &target, const Probe &now) {
    const std::string waited = "no answer within " + shown(target.timeoutSeconds);
    if (now.error == RPC_PORT_ERROR_OUT_OF_MEMORY)
        return explainUnreachable(target.appId, now.error, now.reason);
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
