// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "session.h"

namespace nelvoctl {

// The arguments of the command line; each command reads those that it has declared.
struct Options {
    bool json = false;
    Target target;
    std::string actionId;
    std::optional<std::string> params;
    int count = 0;
    double intervalSeconds = 1;
    std::string file;                 // to read or to write, by the command
    std::vector<std::string> program; // and its arguments
    std::vector<std::string> appIds;
    std::vector<std::string> catalogues; // FILE or APP_ID=FILE
    bool isReadOnly = false;
    double speed = 1;
    bool isFast = false;
    std::vector<std::string> ignored; // JSON pointers
};

struct Command {
    const char *name;
    const char *summary;
    // Declares its arguments; parsing stores them in the options.
    void (*configure)(CLI::App &arguments, Options &options);
    // Returns the exit code. Throws Failure.
    int (*run)(const Options &options);
};

extern const Command LIST, ACTIONS, CALL, STATE, WATCH, SHELL, BENCH, DOCTOR, TRACE, RECORD, REPLAY,
    MCP;

// Declare arguments that several commands share.
CLI::Option *addAppId(CLI::App &arguments, std::string &appId);
void addTarget(CLI::App &arguments, Options &options);
void addAppIds(CLI::App &arguments, std::vector<std::string> &appIds);
void addRequest(CLI::App &arguments, Target &target); // how to make it, not to whom
void addAction(CLI::App &arguments, Options &options);
CLI::Option *addSeconds(CLI::App &arguments, const char *name, double &seconds, const char *help);

// Prints the answer to a request for that action; returns the exit code.
int printAnswer(const Options &options, const std::string &request,
                const nelvo::client::Response &response);

// The program: reads the arguments, runs the command, reports failures; returns the exit code.
int run(int argc, const char *const *argv);

} // namespace nelvoctl
