// SPDX-License-Identifier: Apache-2.0
#include "registrations.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>
#include <utility>

#include <nlohmann/json.hpp>

#include "client/library_log.h"
#include "simulated_app.h"

namespace nelvo::testkit {

namespace {

using nlohmann::json;

std::set<std::string> declaredActions(const std::string &file) {
    const json catalogue = json::parse(std::ifstream(file), nullptr, false);
    if (!catalogue.is_object() || !catalogue.value("tools", json()).is_array())
        throw std::runtime_error(file + " is no catalogue; see nelvoctl actions --check " + file);
    std::set<std::string> actionIds;
    for (const json &tool : catalogue["tools"])
        actionIds.insert(tool.value("name", ""));
    return actionIds;
}

void addMissing(const std::set<std::string> &from, const std::set<std::string> &in,
                const std::string &what, std::vector<std::string> &differences) {
    for (const std::string &actionId : from)
        if (in.count(actionId) == 0)
            differences.push_back(what + actionId);
}

} // namespace

void Registrations::heed(const LogLine &line) {
    using client::LogEvent;
    const auto [event, actionId] = client::readLogLine(line.function, line.message);
    const std::string removed = std::exchange(_removed, "");
    if (event == LogEvent::CALLBACK_SET && actionId != removed)
        _actionIds.insert(actionId);
    if (event == LogEvent::STOPPED)
        _actionIds.clear();
    if (event == LogEvent::CALLBACK_UNSET) {
        _actionIds.erase(actionId);
        _removed = actionId;
    }
}

std::vector<std::string> compareCatalogue(const std::string &file) {
    const std::set<std::string> declared = declaredActions(file);
    std::vector<std::string> differences;
    addMissing(declared, registeredActions(), "declared, not registered: ", differences);
    addMissing(registeredActions(), declared, "registered, not declared: ", differences);
    return differences;
}

} // namespace nelvo::testkit
