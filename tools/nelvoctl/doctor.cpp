// SPDX-License-Identifier: Apache-2.0
// doctor: checks everything between a client and an application, and says how to fix each problem.
#include <functional>
#include <vector>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "diagnosis.h"
#include "output.h"
#include "processes.h"
#include "runtime_dir.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

// Thrown by a check that cannot decide.
struct Unknown {
    std::string why;
};

// Thrown by a check that succeeds and has found what an application need not have.
struct Note {
    std::string what;
};

// A check returns a text with its finding, or throws Failure, Note or Unknown.
struct Check {
    const char *name;
    std::function<std::string()> find;
    bool needsPrevious; // makes sense only when the one before has succeeded
};

std::string checkRuntimeDir() {
    const std::string dir = runtimeDir();
    if (const std::string fault = faultOf(dir); !fault.empty())
        throw Failure(Cause::RUNTIME_DIRECTORY, dir + " " + fault);
    return dir;
}

std::string describeProcess(const std::vector<AppProcess> &processes) {
    if (processes.empty())
        throw Unknown{"not found: it does not run, or it runs in a container"};
    const AppProcess &first = processes.front();
    return std::to_string(first.pid) + ", " + first.program + ", " + first.activity() +
           (first.isHere() ? "" : ", with the runtime directory " + first.runtimeDir);
}

std::string checkSdkVersion(const std::string &path, const std::string &appId) {
    if (path.empty())
        throw Unknown{"no process, so its manifest is not known; name it with --manifest"};
    const Manifest manifest = readManifest(path, appId);
    if (!manifest.isAdmitted())
        throw Failure(Cause::SDK_VERSION, path + " " + manifest.found());
    return path + " " + manifest.found();
}

std::string checkAllowList(const std::string &clientId) {
    const std::string list = ALLOW_LIST_FILE;
    const Admission admission = admissionOf(clientId);
    if (admission == Admission::NOT_LISTED)
        throw Failure(Cause::NOT_ADMITTED, list + " does not name " + clientId);
    return list + (admission == Admission::LISTED ? " names " + clientId
                                                  : " cannot be opened: every client is admitted");
}

std::string checkState(Session &session, const std::string &appId) {
    const auto response = session.ask(nelvo::client::STATE_ACTION_ID);
    const auto failure = failureOf(response, appId);
    if (failure && failure->cause == Cause::NO_CALLBACK)
        throw Note{"answered; it has registered no callback for its state"};
    if (failure)
        throw *failure;
    return "answered with " + std::to_string(response.field("appContext").size()) + " bytes";
}

json perform(const Check &check) {
    json result = {{"check", check.name}, {"status", "ok"}};
    try {
        result["found"] = check.find();
    } catch (const Note &note) {
        result["status"] = "note";
        result["found"] = note.what;
    } catch (const Unknown &unknown) {
        result["status"] = "unknown";
        result["found"] = unknown.why;
    } catch (const Failure &failure) {
        result["status"] = "failed";
        result["found"] = failure.message;
        result["error"] = toJson(failure);
    }
    return result;
}

json performAll(const std::vector<Check> &checks) {
    json results = json::array();
    for (const Check &check : checks) {
        if (check.needsPrevious && results.back()["status"] != "ok")
            results.push_back({{"check", check.name},
                               {"status", "skipped"},
                               {"found", "the previous check did not succeed"}});
        else
            results.push_back(perform(check));
    }
    return results;
}

void printChecks(const json &results) {
    for (const json &result : results) {
        const std::string status = result["status"];
        const Colour colour = status == "ok"       ? Colour::GREEN
                              : status == "failed" ? Colour::RED
                                                   : Colour::DIM;
        print(paint(colour, padded(status, 7)) + "  " + padded(result["check"], 17) + "  " +
              printable(result["found"]));
        if (result.contains("error"))
            print(padded("", 28) + result["error"]["cause"].get<std::string>() + ": " +
                  result["error"]["remedy"].get<std::string>());
    }
}

int runDoctor(const Options &options) {
    const Target &target = options.target;
    const auto processes = findProcesses(target.appId);
    const std::string manifest = !options.file.empty() ? options.file
                                 : processes.empty()   ? ""
                                                       : processes.front().manifest;
    Session session(target);
    json document = {{"appId", target.appId}};
    document["checks"] = performAll({
        {"runtime directory", checkRuntimeDir, false},
        {"process", [&] { return describeProcess(processes); }, false},
        {"SDK version", [&] { return checkSdkVersion(manifest, target.appId); }, false},
        {"allow list", [&] { return checkAllowList(target.clientId); }, false},
        {"connection", [&] { return session.connect(), "its main loop responds"; }, false},
        {"response callback", [&] { return session.registerCallback(), "accepted"; }, true},
        {"state request", [&] { return checkState(session, target.appId); }, true},
    });
    for (const json &result : document["checks"])
        if (result.contains("error") && !document.contains("error"))
            document["error"] = result["error"]; // the first explains the others
    if (options.json)
        print(dump(document));
    else
        printChecks(document["checks"]);
    return document.contains("error") ? document["error"]["exitCode"].get<int>()
                                      : EXIT_CODE_SUCCESS;
}

} // namespace

const Command DOCTOR = {"doctor", "Check what can keep an application from answering",
                        [](CLI::App &arguments, Options &options) {
                            options.target.timeoutSeconds = 5;
                            addTarget(arguments, options);
                            arguments
                                .add_option("--manifest", options.file,
                                            "The application's manifest, if it does not run")
                                ->type_name("FILE");
                        },
                        runDoctor};

} // namespace nelvoctl
