// SPDX-License-Identifier: Apache-2.0
#include "subprocess.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <host/tap.h>

#include "cause.h"

namespace nelvoctl {

namespace {

constexpr int QUIET_MILLISECONDS = 50;

volatile pid_t child = 0; // for the signal handler

// The terminal sends Ctrl-C's signal to the program as well.
void passOn(int signal) {
    if (signal != SIGINT && child > 0)
        kill(child, signal);
}

pid_t spawn(const std::vector<std::string> &program, int errorPipe, int tap) {
    std::vector<char *> arguments;
    for (const std::string &argument : program)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errorPipe, STDERR_FILENO);
    posix_spawn_file_actions_adddup2(&actions, tap, tap); // which keeps it open in the program
    pid_t pid = 0;
    const int error =
        posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw Failure(Cause::NOT_STARTED,
                      "\"" + program[0] + "\" cannot be started: " + std::strerror(error));
    return pid;
}

// Passes on what has arrived at the tap.
void readTap(int tap, TapReader &reader) {
    char buffer[65536];
    for (ssize_t size; (size = recv(tap, buffer, sizeof buffer, MSG_DONTWAIT)) > 0;)
        reader.take(buffer, static_cast<std::size_t>(size));
}

// Reads until the program and all its children have closed their stderr.
void readAll(int errors, int tap, const Watcher &watcher) {
    TapReader reader;
    reader.event = watcher.passed;
    std::string pending;
    char buffer[4096];
    for (;;) {
        pollfd polled[] = {{errors, POLLIN, 0}, {tap, POLLIN, 0}};
        if (poll(polled, 2, QUIET_MILLISECONDS) == 0) {
            watcher.quiet();
            poll(polled, 2, -1);
        }
        // The lines first: what led to them has passed before, and is handled before.
        const bool hasLines = polled[0].revents != 0;
        const ssize_t size = hasLines ? read(errors, buffer, sizeof buffer) : 0;
        if (polled[1].revents & POLLHUP)
            tap = -1; // which poll() passes over
        readTap(polled[1].fd, reader);
        if (!hasLines || (size < 0 && errno == EINTR))
            continue;
        if (size <= 0)
            break;
        pending.append(buffer, static_cast<std::size_t>(size));
        for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
            watcher.line(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
    }
    if (!pending.empty())
        watcher.line(pending);
}

} // namespace

int runAndRead(const std::vector<std::string> &program,
               const std::vector<std::pair<std::string, std::string>> &environment,
               const Watcher &watcher) {
    int errors[2], tap[2]; // ours, the program's
    if (pipe2(errors, O_CLOEXEC) != 0 ||
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, tap) != 0)
        throw Failure(Cause::INTERNAL,
                      std::string("there is no way to watch the program: ") + std::strerror(errno));
    for (const auto &[name, value] : environment)
        setenv(name.c_str(), value.c_str(), 1);
    setenv(HOST_TAP_VARIABLE, std::to_string(tap[1]).c_str(), 1);
    std::signal(SIGINT, passOn);
    std::signal(SIGTERM, passOn);
    child = spawn(program, errors[1], tap[1]);
    close(errors[1]);
    close(tap[1]);
    readAll(errors[0], tap[0], watcher);
    close(errors[0]);
    close(tap[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    child = 0;
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    const int signal = WTERMSIG(status);
    return signal == SIGINT || signal == SIGTERM ? 0 : -signal;
}

std::string explainEnd(const std::string &program, int status) {
    return program + (status > 0 ? " ended with exit code " : " was ended by signal ") +
           std::to_string(std::abs(status));
}

} // namespace nelvoctl
