// SPDX-License-Identifier: Apache-2.0
// watch: asks for the state at intervals and prints what has changed.
#include <ctime>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "output.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

// The state as JSON, or as one string if it is not JSON.
json readState(const std::string &state) {
    json document = json::parse(state, nullptr, false);
    return document.is_discarded() ? json(state) : document;
}

std::string timeOfDay() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", localtime_r(&now, &local));
    return text;
}

// One line for each value that differs: "volume: 50 -> 30".
void printChanges(const json &before, const json &after) {
    for (const json &change : json::diff(before, after)) {
        const json::json_pointer place(change["path"].get<std::string>());
        const std::string path = place.empty() ? "state" : place.to_string().substr(1);
        const std::string old = change["op"] == "add" ? "" : dump(before.at(place)) + " -> ";
        const std::string now = change["op"] == "remove" ? "gone" : dump(change["value"]);
        print(paint(Colour::DIM, timeOfDay()) + "  " + printable(path) + ": " + old + now);
    }
}

json ask(const Options &options) {
    const auto response = exchange(options.target, nelvo::client::STATE_ACTION_ID);
    if (const auto failure = failureOf(response, options.target.appId))
        throw *failure;
    return readState(response.field("appContext"));
}

int runWatch(const Options &options) {
    json before;
    for (int polls = 0; options.count == 0 || polls < options.count; polls++) {
        if (polls > 0)
            runLoopFor(options.intervalSeconds);
        const json now = ask(options);
        if (polls > 0 && now == before)
            continue;
        if (options.json)
            print(dump({{"time", timeOfDay()},
                        {"state", now},
                        {"changes", polls ? json::diff(before, now) : json::array()}}));
        else if (polls == 0)
            print(paint(Colour::DIM, timeOfDay()) + "  " + dump(now));
        else
            printChanges(before, now);
        before = now;
    }
    return EXIT_CODE_SUCCESS;
}

} // namespace

const Command WATCH = {"watch", "Ask for the state again and again, and print what changes",
                       [](CLI::App &arguments, Options &options) {
                           addTarget(arguments, options);
                           addSeconds(arguments, "--interval", options.intervalSeconds,
                                      "How long to pause between two requests")
                               ->capture_default_str();
                           arguments
                               .add_option("-n,--count", options.count,
                                           "How often to ask; for ever if not given")
                               ->check(CLI::PositiveNumber);
                       },
                       runWatch};

} // namespace nelvoctl
