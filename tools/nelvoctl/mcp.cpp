// SPDX-License-Identifier: Apache-2.0
// mcp: a server of the Model Context Protocol over stdin and stdout.
#include <cerrno>
#include <csignal>
#include <cstring>

#include <unistd.h>

#include <Ecore.h>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "mcp_server.h"
#include "output.h"
#include "recorder.h"
#include "timer.h"

namespace nelvoctl {

namespace {

using nlohmann::json;

// The streams of the process, until the client closes one of them.
class Streams {
public:
    explicit Streams(const McpServer::Settings &settings)
        : _server(
              settings, [this](const json &message) { write(message); }, [this] { end(""); }) {
        std::signal(SIGPIPE, SIG_IGN);
        ecore_main_fd_handler_add(STDOUT_FILENO, ECORE_FD_ERROR, closedCb, this, nullptr, nullptr);
        if (!ecore_main_fd_handler_add(STDIN_FILENO, ECORE_FD_READ, readCb, this, nullptr, nullptr))
            readFile();
    }

    // Returns when the last answer has been written. Throws Failure.
    void run() {
        while (!_hasEnded)
            ecore_main_loop_begin();
        if (!_fault.empty())
            throw Failure(Cause::OUTPUT, "could not write to stdout: " + _fault);
    }

private:
    void end(const std::string &fault) {
        if (_fault.empty())
            _fault = fault;
        _hasEnded = true;
        ecore_main_loop_quit();
    }

    // Blocks while the client does not read, so that what it asks for does not pile up here.
    void write(const json &message) {
        const std::string line =
            message.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
        for (std::size_t at = 0; at < line.size() && _fault.empty();) {
            const ssize_t written = ::write(STDOUT_FILENO, &line[at], line.size() - at);
            if (written >= 0)
                at += static_cast<std::size_t>(written);
            else if (errno != EINTR)
                end(std::strerror(errno));
        }
    }

    // Returns false at the end of the input.
    bool read() {
        char bytes[65536];
        const ssize_t size = ::read(STDIN_FILENO, bytes, sizeof bytes);
        if (size > 0)
            _server.receive({bytes, static_cast<std::size_t>(size)});
        else if (size == 0 || errno != EINTR)
            _server.endInput();
        return size > 0 || (size < 0 && errno == EINTR);
    }

    // A plain file is always readable and cannot be watched.
    void readFile() {
        _timer.start(0, [this] {
            if (read())
                readFile();
        });
    }

    static Eina_Bool readCb(void *self, Ecore_Fd_Handler *) {
        return static_cast<Streams *>(self)->read() ? ECORE_CALLBACK_RENEW : ECORE_CALLBACK_CANCEL;
    }

    static Eina_Bool closedCb(void *self, Ecore_Fd_Handler *) {
        static_cast<Streams *>(self)->end(std::strerror(EPIPE));
        return ECORE_CALLBACK_CANCEL;
    }

    bool _hasEnded = false;
    std::string _fault; // empty: stdout can be written
    Timer _timer;
    McpServer _server;
};

McpServer::Settings settingsOf(const Options &options) {
    McpServer::Settings settings;
    settings.applications.named = options.appIds;
    settings.applications.target = options.target;
    if (!options.file.empty())
        settings.applications.target.recorder = std::make_shared<Recorder>(options.file);
    settings.isReadOnly = options.isReadOnly;
    settings.intervalSeconds = options.intervalSeconds;
    for (const std::string &given : options.catalogues) {
        const std::size_t separator = given.find('=');
        if (separator == given.npos && options.appIds.size() != 1)
            throw Failure(Cause::USAGE, "give --catalogue as APP_ID=FILE, since not exactly one "
                                        "APP_ID is given");
        if (separator == given.npos)
            settings.applications.catalogues[options.appIds.front()] = given;
        else
            settings.applications.catalogues[given.substr(0, separator)] =
                given.substr(separator + 1);
    }
    return settings;
}

int runMcp(const Options &options) {
    Streams(settingsOf(options)).run();
    return EXIT_CODE_SUCCESS;
}

} // namespace

const Command MCP = {
    "mcp", "Serve applications to an assistant, over MCP on stdin and stdout",
    [](CLI::App &arguments, Options &options) {
        addAppIds(arguments, options.appIds);
        addRequest(arguments, options.target);
        addSeconds(arguments, "--interval", options.intervalSeconds,
                   "How long to pause between two requests for a state that is subscribed to")
            ->capture_default_str();
        arguments
            .add_option("--catalogue", options.catalogues,
                        "The actions of an application, also while it does not run")
            ->type_name("[APP_ID=]FILE")
            ->allow_extra_args(false);
        arguments
            .add_option("--record", options.file, "Keep what is asked and answered in this file")
            ->type_name("FILE");
        arguments.add_flag("--read-only", options.isReadOnly,
                           "Offer only actions that are declared as read-only, and the state");
    },
    runMcp};

} // namespace nelvoctl
