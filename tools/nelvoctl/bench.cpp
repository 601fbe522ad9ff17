// SPDX-License-Identifier: Apache-2.0
// bench: the time that each of many requests takes, one after the other over one connection.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include <unistd.h>

#include <Ecore.h>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "output.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

struct Percentile {
    const char *name;
    double portion;
};
const Percentile PERCENTILES[] = {{"min", 0},    {"p50", 0.5},     {"p90", 0.9},
                                  {"p99", 0.99}, {"p99.9", 0.999}, {"max", 1}};

// A progress bar on stderr, if that is a terminal; erased at the end.
class Progress {
public:
    explicit Progress(int total) : _total(total) {}
    ~Progress() {
        if (_shown >= 0)
            std::fprintf(stderr, "\r\x1b[K");
    }

    void show(int done) {
        constexpr int WIDTH = 40;
        const int marks = static_cast<int>(static_cast<long>(done) * WIDTH / _total);
        if (!_visible || marks == _shown)
            return;
        _shown = marks;
        std::fprintf(stderr, "\r[%-*s] %d of %d", WIDTH,
                     std::string(WIDTH, '#').c_str() + WIDTH - marks, done, _total);
    }

private:
    const int _total;
    const bool _visible = isatty(STDERR_FILENO) == 1;
    int _shown = -1; // nothing yet
};

// The percentile of the sorted times, by nearest rank.
double percentile(const std::vector<double> &times, double portion) {
    const double rank = std::ceil(portion * static_cast<double>(times.size()));
    return times[static_cast<std::size_t>(std::max(rank, 1.0)) - 1];
}

json summarise(const Options &options, std::vector<double> times, int failures) {
    std::sort(times.begin(), times.end());
    json document = {{"appId", options.target.appId},
                     {"actionId", options.actionId},
                     {"requests", options.count},
                     {"failures", failures},
                     {"milliseconds", json::object()}};
    for (const auto &[name, portion] : PERCENTILES)
        document["milliseconds"][name] = 1000 * percentile(times, portion);
    return document;
}

void printForPeople(const json &summary) {
    const int requests = summary["requests"], failures = summary["failures"];
    print(std::to_string(requests) + " requests, " +
          paint(failures ? Colour::RED : Colour::GREEN, std::to_string(failures) + " failures"));
    for (const Percentile &percentile : PERCENTILES) {
        char line[64];
        std::snprintf(line, sizeof line, "  %-6s %10.3f ms", percentile.name,
                      summary["milliseconds"][percentile.name].get<double>());
        print(line);
    }
}

int runBench(const Options &options) {
    Session session(options.target);
    session.connect();
    session.registerCallback();
    std::vector<double> times;
    std::optional<Failure> failure; // the latest
    int failures = 0;
    {
        Progress progress(options.count);
        for (int done = 0; done < options.count; progress.show(++done)) {
            const double start = ecore_time_get();
            const auto response = session.ask(options.actionId, options.params);
            times.push_back(ecore_time_get() - start);
            if (auto failed = failureOf(response, options.target.appId)) {
                failure = failed;
                failures++;
            }
        }
    }
    json summary = summarise(options, times, failures);
    if (failure && options.json)
        summary["error"] = toJson(*failure);
    if (options.json)
        print(dump(summary));
    else
        printForPeople(summary);
    return failure ? report(*failure, false) : EXIT_CODE_SUCCESS;
}

} // namespace

const Command BENCH = {"bench", "Measure how long an action takes",
                       [](CLI::App &arguments, Options &options) {
                           addTarget(arguments, options);
                           addAction(arguments, options);
                           options.count = 100;
                           arguments.add_option("-n,--count", options.count, "How many requests")
                               ->check(CLI::PositiveNumber)
                               ->capture_default_str();
                       },
                       runBench};

} // namespace nelvoctl
