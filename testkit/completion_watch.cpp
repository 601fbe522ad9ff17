// SPDX-License-Identifier: Apache-2.0
#include "completion_watch.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "client/library_log.h"

namespace nelvo::testkit {
namespace {

constexpr const char *COMPLETED = "it had been completed before";
constexpr const char *TIMED_OUT = "it had timed out";
constexpr const char *OVERTAKEN = "a newer request had overtaken it";
constexpr const char *STOPPED = "the library had been stopped since";
constexpr const char *OF_OTHER_KIND = "it is a request of the other kind";

} // namespace

void CompletionWatch::heed(const LogLine &line) {
    using client::LogEvent;
    const auto [event, detail] = client::readLogLine(line.function, line.message);
    switch (event) {
    case LogEvent::STARTED:
        _latest = 1;
        break;
    case LogEvent::STOPPED:
        for (Request &request : _requests) {
            if (request.end != COMPLETED)
                request.keptSince = request.actionId;
            request.end = STOPPED;
        }
        break;
    case LogEvent::STATE_REQUEST:
        end(OVERTAKEN);
        begin("getAppContext");
        break;
    case LogEvent::ACTION_REQUEST:
        end(OVERTAKEN);
        break;
    case LogEvent::CALLBACK_FOUND:
        begin(detail);
        break;
    case LogEvent::NO_STATE_CALLBACK:
    case LogEvent::NO_TIMER:
        _latest = (_latest + HANDLERS - 1) % HANDLERS; // it took no handler after all
        break;
    case LogEvent::REPORTED:
        end(COMPLETED);
        break;
    case LogEvent::TIMED_OUT:
        end(TIMED_OUT);
        break;
    case LogEvent::UNKNOWN_HANDLER:
        warn(line, _requests.at(static_cast<std::size_t>(std::atoi(detail.c_str()))));
        break;
    case LogEvent::TOO_LATE:
        warn(line, latest());
        break;
    case LogEvent::NOT_INITIALIZED:
        warn(line, Request{"", STOPPED});
        break;
    default:
        break;
    }
}

void CompletionWatch::begin(const std::string &actionId) {
    _latest = (_latest + 1) % HANDLERS;
    latest() = {actionId, nullptr, std::move(latest().keptSince)};
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
    if (request.end == COMPLETED && !request.keptSince.empty())
        warning += ", perhaps with the handler of \"" + request.keptSince +
                   "\", kept while the library was stopped and started again";
    if (std::find(_warnings.begin(), _warnings.end(), warning) == _warnings.end())
        _warnings.push_back(std::move(warning));
}

std::vector<std::string> CompletionWatch::take() {
    return std::exchange(_warnings, {});
}

} // namespace nelvo::testkit
