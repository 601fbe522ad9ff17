// SPDX-License-Identifier: Apache-2.0
#include "completion_watch.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace nelvo::testkit {
namespace {

constexpr const char *COMPLETED = "it had been completed before";
constexpr const char *TIMED_OUT = "it had timed out";
constexpr const char *OVERTAKEN = "a newer request had overtaken it";
constexpr const char *STOPPED = "the library had been stopped since";
constexpr const char *OF_OTHER_KIND = "it is a request of the other kind";

const std::string FOUND = "Found execute action Id: ";
const std::string UNKNOWN = "Couldn't find requestId corresponding to actionHandler ";

bool startsWith(const std::string &text, const std::string &start) {
    return text.compare(0, start.size(), start) == 0;
}

bool endsWith(const std::string &text, const std::string &end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace

void CompletionWatch::heed(const LogLine &line) {
    const std::string &function = line.function;
    const std::string &message = line.message;
    if (startsWith(function, "complete")) {
        heedCompletion(line);
    } else if (function == "executeRequest") {
        if (!endsWith(message, " request recieved"))
            return; // dropped, so that the pending one goes on
        end(OVERTAKEN);
        if (message == "App State request recieved")
            begin("getAppContext");
    } else if (startsWith(message, FOUND)) {
        begin(message.substr(FOUND.size(), message.rfind("  Callback: ") - FOUND.size()));
    } else if (message == "There is no app state request callback." ||
               message == "the completion timer can't be created") {
        _latest = (_latest + HANDLERS - 1) % HANDLERS; // it took no handler after all
    } else if (endsWith(function, "CompleteCheckCb") ||
               function == "_completeActionExecutionCheckCb") {
        end(TIMED_OUT);
    } else if (message == "NelvoImpl is deinitialized") {
        for (Request &request : _requests)
            request.end = STOPPED;
    } else if (message == "App SDK NelvoImpl is initialized") {
        _latest = 1;
    }
}

void CompletionWatch::heedCompletion(const LogLine &line) {
    const std::string &message = line.message;
    if (line.priority != DLOG_ERROR) {
        end(COMPLETED);
    } else if (startsWith(message, UNKNOWN)) {
        const int number = std::atoi(message.c_str() + UNKNOWN.size());
        warn(line, _requests.at(static_cast<std::size_t>(number)));
    } else if (endsWith(message, " recieved after timeout, discarding")) {
        warn(line, latest());
    } else if (message == "Nelvo is not initialized") {
        warn(line, {"", STOPPED});
    } else if (message == "bundle_create is failed") {
        end(COMPLETED);
    }
}

void CompletionWatch::begin(const std::string &actionId) {
    _latest = (_latest + 1) % HANDLERS;
    latest() = {actionId, nullptr};
}

void CompletionWatch::end(const char *how) {
    if (!latest().end)
        latest().end = how;
}

void CompletionWatch::warn(const LogLine &line, const Request &request) {
    std::string warning = line.function == "completeActionExecution"
                              ? "nelvo_complete_action_execution()"
                              : "nelvo_complete_app_state_request()";
    if (!request.actionId.empty())
        warning += " for \"" + request.actionId + "\"";
    warning += std::string(": ") + (request.end ? request.end : OF_OTHER_KIND);
    if (std::find(_warnings.begin(), _warnings.end(), warning) == _warnings.end())
        _warnings.push_back(std::move(warning));
}

std::vector<std::string> CompletionWatch::take() {
    return std::exchange(_warnings, {});
}

} // namespace nelvo::testkit
