// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <csignal>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nelvo::testkit {

using Clock = std::chrono::steady_clock;

Process::Process(const std::string &program, const std::vector<std::string> &arguments) {
    std::vector<char *> argv{const_cast<char *>(program.c_str())};
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe2");
    _pid = fork();
    if (_pid == 0) {
        dup2(outPipe[1], STDOUT_FILENO);
        dup2(errPipe[1], STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    _fds[0] = outPipe[0];
    _fds[1] = errPipe[0];
}

Process::~Process() {
    if (_pid > 0) {
        signal(SIGKILL);
        waitpid(_pid, nullptr, 0);
    }
    closeFd(0);
    closeFd(1);
}

void Process::signal(int number) const {
    kill(_pid, number);
}

int Process::wait() {
    if (!readUntil([this] { return _fds[0] < 0 && _fds[1] < 0; }))
        return -1;
    int status = 0;
    waitpid(std::exchange(_pid, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool Process::waitForErr(const std::string &text) {
    return readUntil([&] { return err().find(text) != std::string::npos; });
}

bool Process::readUntil(const std::function<bool()> &condition) {
    const auto deadline = Clock::now() + PATIENCE;
    while (!condition()) {
        pollfd polled[] = {{_fds[0], POLLIN, 0}, {_fds[1], POLLIN, 0}};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0 || poll(polled, 2, static_cast<int>(left.count())) <= 0)
            return false;
        for (std::size_t i = 0; i < 2; ++i)
            if (polled[i].revents)
                readFrom(i);
    }
    return true;
}

void Process::readFrom(std::size_t i) {
    char buffer[4096];
    const ssize_t size = read(_fds[i], buffer, sizeof buffer);
    if (size > 0)
        _texts[i].append(buffer, static_cast<std::size_t>(size));
    else
        closeFd(i);
}

void Process::closeFd(std::size_t i) {
    if (_fds[i] >= 0)
        close(std::exchange(_fds[i], -1));
}

} // namespace nelvo::testkit
