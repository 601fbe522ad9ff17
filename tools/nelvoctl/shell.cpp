// SPDX-License-Identifier: Apache-2.0
// shell: a prompt at which each line is a request.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <set>

#include <editline/readline.h>
#include <unistd.h>

#include "commands.h"
#include "output.h"

namespace nelvoctl {

namespace {

const char *const HELP = "ACTION_ID [PARAMS]  perform an action; PARAMS are the rest of the line\n"
                         ".state              ask for the state\n"
                         ".help               this text\n"
                         ".quit               end; so does Ctrl-D";

// The words to complete: action ids used so far, and the shell's own commands. Global, since the
// editor's callback has no argument for user data.
std::set<std::string> words = {".state", ".help", ".quit"};

// Returns the words that begin with start, one per call, then null. The editor frees each word.
char *completeCb(const char *start, int repeated) {
    static std::set<std::string>::iterator next;
    if (!repeated)
        next = words.lower_bound(start);
    if (next == words.end() || next->compare(0, std::strlen(start), start) != 0)
        return nullptr;
    return strdup((next++)->c_str());
}

// Splits a line into its first word and the rest.
std::pair<std::string, std::optional<std::string>> split(const std::string &line) {
    const std::size_t end = line.find(' ');
    if (end == std::string::npos)
        return {line, std::nullopt};
    return {line.substr(0, end), line.substr(line.find_first_not_of(' ', end))};
}

std::string trimmed(const std::string &line) {
    const std::size_t start = line.find_first_not_of(" \t");
    return start == std::string::npos
               ? ""
               : line.substr(start, line.find_last_not_of(" \t\r") + 1 - start);
}

// Reads lines with the line editor, which keeps a history for each application; or directly from
// stdin if that is not a terminal.
class Lines {
public:
    explicit Lines(const std::string &appId) : _prompt(appId + "> ") {
        const char *home = std::getenv("HOME");
        const char *state = std::getenv("XDG_STATE_HOME");
        if (!_interactive || !home)
            return;
        const std::filesystem::path folder =
            (state && *state ? std::filesystem::path(state)
                             : std::filesystem::path(home) / ".local/state") /
            "nelvoctl";
        std::error_code error; // without the folder there is no history, which is no reason to stop
        std::filesystem::create_directories(folder, error);
        _history = folder / appId;
        rl_completion_entry_function = completeCb;
        using_history();
        stifle_history(1000);
        read_history(_history.c_str());
        for (int i = history_base; i < history_base + history_length; i++)
            if (const HIST_ENTRY *entry = history_get(i))
                words.insert(split(trimmed(entry->line)).first);
    }
    ~Lines() {
        if (!_history.empty())
            write_history(_history.c_str());
    }

    bool isInteractive() const { return _interactive; }

    bool next(std::string &line) {
        if (!_interactive)
            return static_cast<bool>(std::getline(std::cin, line));
        char *read = readline(_prompt.c_str());
        if (!read) {
            std::fputc('\n', stderr); // behind the prompt
            return false;
        }
        line = read;
        std::free(read);
        if (!trimmed(line).empty()) {
            add_history(line.c_str());
            words.insert(split(trimmed(line)).first);
        }
        return true;
    }

private:
    const bool _interactive = isatty(STDIN_FILENO) == 1;
    const std::string _prompt;
    std::string _history; // path; empty: none is kept
};

// Whoever types a shell's usual word at the prompt gets to know ours.
int performAction(const Options &options, const std::string &actionId,
                  const std::optional<std::string> &params) {
    const auto response = exchange(options.target, actionId, params);
    const int code = printAnswer(options, actionId, response);
    const auto failure = failureOf(response, options.target.appId);
    for (const char *word : {"help", "?", "state", "quit", "exit"})
        if (actionId == word && failure && failure->cause == Cause::NO_CALLBACK)
            note("the shell's own words are .help, .state and .quit");
    return code;
}

int perform(const Options &options, const std::string &line) {
    const auto [word, params] = split(line);
    if (word == ".help")
        std::fprintf(stderr, "%s\n", HELP);
    else if (word == ".state")
        return printAnswer(options, "state",
                           exchange(options.target, nelvo::client::STATE_ACTION_ID));
    else if (word[0] == '.')
        throw Failure(Cause::USAGE, "\"" + word + "\" is not a command; .help lists the commands");
    else
        return performAction(options, word, params);
    return EXIT_CODE_SUCCESS;
}

// A script gets the exit code of the worst failure; a person has seen the failures already.
int runShell(const Options &options) {
    Lines lines(options.target.appId);
    if (lines.isInteractive())
        std::fprintf(stderr, "Type ACTION_ID [PARAMS], .state, .help or .quit.\n");
    int worst = EXIT_CODE_SUCCESS;
    for (std::string read; lines.next(read);) {
        const std::string line = trimmed(read);
        if (line == ".quit")
            break;
        if (line.empty())
            continue;
        try {
            worst = std::max(worst, perform(options, line));
        } catch (const Failure &failure) {
            worst = std::max(worst, report(failure, options.json));
        }
    }
    return lines.isInteractive() ? EXIT_CODE_SUCCESS : worst;
}

} // namespace

const Command SHELL = {"shell", "Open a prompt for requests", addTarget, runShell};

} // namespace nelvoctl
