// SPDX-License-Identifier: Apache-2.0
// trace: runs an application and prints the course of each request, as the library's log tells it.
#include <cstdio>
#include <cstring>
#include <fstream>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "output.h"
#include "subprocess.h"
#include "timeline.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

double milliseconds(double from, double to) {
    return to > 0 ? 1000 * (to - from) : -1;
}

std::string column(const char *name, double value) {
    char text[64];
    std::snprintf(text, sizeof text, "  %s %+9.3f ms", name, value);
    return value < 0 ? std::string(std::strlen(text), ' ') : text;
}

// Prints each request when it ends, and keeps all requests for the file written at the end.
class Trace {
public:
    explicit Trace(const Options &options) : _options(options) {
        _timeline.ended = [this](const TracedRequest &request) {
            printRequest(request);
            addEvents(request);
        };
        _timeline.ignoredReport = [this](const std::string &text) {
            if (!_options.json)
                print(paint(Colour::YELLOW, "    a late report was ignored: ") + printable(text));
        };
    }

    // Takes a line of the application's stderr. Passes on what would have been shown without trace.
    void take(const std::string &line) {
        double time = 0;
        char level = 0;
        int start = 0; // of the tag
        const bool isEntry = std::sscanf(line.c_str(), "%lf %c %n", &time, &level, &start) == 2 &&
                             std::strchr("VDIWEF", level) && line.find(": ") != line.npos;
        const std::string entry = isEntry ? line.substr(static_cast<std::size_t>(start)) : "";
        if (!isEntry)
            std::fprintf(stderr, "%s\n", printable(line).c_str());
        else if (std::strchr("WEF", level))
            std::fprintf(stderr, "%c %s\n", level, printable(entry).c_str());
        if (isEntry && _start == 0)
            _start = time;
        // A line of the library: "NELVO-APPSDK: VERSION :  LINE FUNCTION(): TEXT"
        const std::size_t end = entry.find("(): ");
        if (entry.rfind("NELVO-APPSDK: ", 0) == 0 && end != entry.npos) {
            const std::size_t name = entry.rfind(' ', end) + 1;
            _timeline.take(time, entry.substr(name, end - name), entry.substr(end + 4));
        }
    }

    void take(const TapEvent &event) {
        char *actionId = nullptr;
        if (event.kind == nelvo::client::EventKind::REQUEST)
            bundle_get_str(event.content.get(), "actionId", &actionId);
        if (event.kind == nelvo::client::EventKind::REQUEST)
            _timeline.arrives(actionId ? actionId : "?");
    }

    void rest() { _timeline.rest(); }

    void writeChrome() const {
        std::ofstream file(_options.file);
        file << json{{"traceEvents", _events}}.dump(-1, ' ', true, json::error_handler_t::replace)
             << '\n';
        if (!file.flush())
            throw Failure(Cause::OUTPUT, "could not write " + _options.file);
    }

private:
    void printRequest(const TracedRequest &request) const {
        const double called = milliseconds(request.arrived, request.called);
        const double completed = milliseconds(request.arrived, request.completed);
        const double ended = milliseconds(request.arrived, request.ended);
        if (_options.json) {
            print(dump({{"request", request.number},
                        {"client", request.client},
                        {"actionId", request.actionId},
                        {"arrivedSeconds", request.arrived - _start},
                        {"callbackMilliseconds", called < 0 ? json() : json(called)},
                        {"completedMilliseconds", completed < 0 ? json() : json(completed)},
                        {"endedMilliseconds", ended},
                        {"outcome", request.outcome},
                        {"supersededBy",
                         request.supersededBy > 0 ? json(request.supersededBy) : json()}}));
            return;
        }
        char head[64];
        std::snprintf(head, sizeof head, "%3d %10.3f s  ", request.number,
                      request.arrived - _start);
        const bool answered = request.outcome == "answered";
        const std::string by =
            request.supersededBy > 0 ? " by " + std::to_string(request.supersededBy) : "";
        print(paint(Colour::DIM, head) + padded(printable(request.actionId), 16) + "  " +
              column("callback", called) + column("completed", completed) + column("ended", ended) +
              "  " +
              paint(answered ? Colour::GREEN : Colour::YELLOW, printable(request.outcome) + by) +
              "  " + printable(request.client));
    }

    // In the Trace Event format: spans with a start and a duration in microseconds.
    void addEvents(const TracedRequest &request) {
        const auto add = [&](const std::string &name, double from, double to) {
            if (from > 0 && to > 0)
                _events.push_back({{"name", name},
                                   {"ph", "X"},
                                   {"pid", 1},
                                   {"tid", 1},
                                   {"ts", 1e6 * (from - _start)},
                                   {"dur", 1e6 * (to - from)},
                                   {"args",
                                    {{"request", request.number},
                                     {"client", request.client},
                                     {"outcome", request.outcome}}}});
        };
        add(request.actionId, request.arrived, request.ended);
        add("before the callback", request.arrived, request.called);
        add("application", request.called, request.completed);
        add("answering", request.completed, request.ended);
    }

    const Options &_options;
    Timeline _timeline;
    double _start = 0; // the first entry's time
    json _events = json::array();
};

int runTrace(const Options &options) {
    Trace trace(options);
    const int status =
        runAndRead(options.program, {{"NELVO_LOG", "debug"}, {"NELVO_LOG_TIME", "1"}},
                   {[&](const std::string &line) { trace.take(line); }, [&] { trace.rest(); },
                    [&](const TapEvent &event) { trace.take(event); }});
    trace.rest();
    if (!options.file.empty())
        trace.writeChrome();
    if (status != 0)
        throw Failure(Cause::FAILURE, explainEnd(options.program[0], status));
    return EXIT_CODE_SUCCESS;
}

} // namespace

const Command TRACE = {"trace", "Run an application and show what becomes of each request",
                       [](CLI::App &arguments, Options &options) {
                           arguments
                               .add_option("--chrome", options.file,
                                           "Write the trace for a browser's trace viewer as well")
                               ->type_name("FILE");
                           arguments
                               .add_option("APP", options.program,
                                           "The application and its arguments, behind --")
                               ->required();
                       },
                       runTrace};

} // namespace nelvoctl
