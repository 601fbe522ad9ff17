// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "applications.h"

namespace nelvoctl {

// The tools that a server offers: the actions that applications declare, and a few that are always
// there, with which an application without a catalogue can be driven.
class McpTools {
public:
    // With isReadOnly: only what its application declares as read-only, and the states.
    McpTools(const Applications &applications, bool isReadOnly);

    // Reads the catalogues again.
    void update();

    // Those that are offered now, as tools/list shows them.
    nlohmann::json list() const;

    // Calls done with the result of tools/call, possibly before call() returns. Returns what cancels
    // the call; null if done has been called. Throws RpcError if there is no such tool.
    using Done = std::function<void(const nlohmann::json &result)>;
    std::function<void()> call(const std::string &name, const nlohmann::json &arguments,
                               const Done &done) const;

private:
    struct Tool {
        nlohmann::json declaration; // with the name under which the tool is offered
        std::string appId;          // empty: always there
        std::string actionId;       // or which of those that are always there
        Schema input;
        bool isOffered = true; // false: its application has gone, and calls are answered with that
    };

    void addAlways(const char *name, const char *title, const char *description,
                   nlohmann::json properties, nlohmann::json required, bool isReadOnly);
    void addActions(const Application &application);
    std::string freeName(const std::string &wanted) const;
    const Tool *find(const std::string &name) const;
    std::function<void()> callAlways(const Tool &tool, const nlohmann::json &arguments,
                                     const Done &done) const;
    std::function<void()> ask(const std::string &appId, const std::string &actionId,
                              const std::optional<std::string> &params, const Done &done) const;

    const Applications &_applications;
    const bool _isReadOnly;
    std::vector<Tool> _tools;
};

// The failure as the text of a result that a model can act upon.
nlohmann::json errorResult(const Failure &failure);

} // namespace nelvoctl
