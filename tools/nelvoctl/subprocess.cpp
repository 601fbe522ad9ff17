// SPDX-License-Identifier: Apache-2.0
#include "subprocess.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

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

pid_t spawn(const std::vector<std::string> &program, int errorPipe) {
    std::vector<char *> arguments;
    for (const std::string &argument : program)
        arguments.push_back(const_cast<char *>(argument.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, STDERR_FILENO, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errorPipe, STDERR_FILENO);
    pid_t pid = 0;
    const int error =
        posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw Failure(Cause::NOT_STARTED,
                      "\"" + program[0] + "\" cannot be started: " + std::strerror(error));
    return pid;
}

// Reads until the program and all its children have closed their stderr.
void readLines(int pipe, const std::function<void(const std::string &)> &line,
               const std::function<void()> &quiet) {
    std::string pending;
    char buffer[4096];
    for (;;) {
        pollfd polled = {pipe, POLLIN, 0};
        if (poll(&polled, 1, QUIET_MILLISECONDS) == 0) {
            quiet();
            poll(&polled, 1, -1);
        }
        const ssize_t size = read(pipe, buffer, sizeof buffer);
        if (size < 0 && errno == EINTR)
            continue;
        if (size <= 0)
            break;
        pending.append(buffer, static_cast<std::size_t>(size));
        for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
            line(pending.substr(0, end));
            pending.erase(0, end + 1);
        }
    }
    if (!pending.empty())
        line(pending);
}

} // namespace

int runAndRead(const std::vector<std::string> &program,
               const std::vector<std::pair<std::string, std::string>> &environment,
               const std::function<void(const std::string &)> &line,
               const std::function<void()> &quiet) {
    for (const auto &[name, value] : environment)
        setenv(name.c_str(), value.c_str(), 1);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        throw Failure(Cause::INTERNAL,
                      std::string("a pipe could not be created: ") + std::strerror(errno));
    std::signal(SIGINT, passOn);
    std::signal(SIGTERM, passOn);
    child = spawn(program, ends[1]);
    close(ends[1]);
    readLines(ends[0], line, quiet);
    close(ends[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    child = 0;
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    const int signal = WTERMSIG(status);
    return signal == SIGINT || signal == SIGTERM ? 0 : -signal;
}

} // namespace nelvoctl
