// SPDX-License-Identifier: Apache-2.0
#include "child.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <utility>

#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nelvo::testkit {

using Clock = std::chrono::steady_clock;

Child::Child(const std::string &program, const std::vector<std::string> &arguments)
    : _out(memfd_create("stdout", MFD_CLOEXEC)), _err(memfd_create("stderr", MFD_CLOEXEC)) {
    std::vector<char *> argv{const_cast<char *>(program.c_str())};
    for (const std::string &argument : arguments)
        argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    const auto execute = [&] {
        execv(argv[0], argv.data());
        _exit(127);
        return 127;
    };
    start(execute, CAPTURED);
}

Child::Child(const std::function<int()> &work, Output output)
    : _out(memfd_create("stdout", MFD_CLOEXEC)), _err(memfd_create("stderr", MFD_CLOEXEC)) {
    start(work, output);
}

void Child::start(const std::function<int()> &work, Output output) {
    std::fflush(nullptr); // or the child would print what is buffered here
    _pid = fork();
    if (_pid < 0)
        throw std::runtime_error("fork failed");
    if (_pid > 0)
        return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (output == CAPTURED) {
        dup2(_out, STDOUT_FILENO);
        dup2(_err, STDERR_FILENO);
    }
    int code = 1;
    try {
        code = work();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
    }
    std::exit(code);
}

Child::~Child() {
    if (_pid > 0) {
        signal(SIGKILL);
        waitpid(_pid, nullptr, 0);
    }
    close(_out);
    close(_err);
}

void Child::signal(int number) const {
    kill(_pid, number);
}

bool Child::ends(std::chrono::milliseconds within) const {
    const auto deadline = Clock::now() + within;
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(_pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0) {
        if (Clock::now() >= deadline)
            return false;
        poll(nullptr, 0, 1); // the child's turn
    }
    return true;
}

int Child::wait(std::chrono::milliseconds limit) {
    if (_pid > 0) {
        if (!ends(limit))
            signal(SIGKILL);
        waitpid(std::exchange(_pid, -1), &_status, 0);
    }
    return WIFEXITED(_status) ? WEXITSTATUS(_status) : -WTERMSIG(_status);
}

std::string Child::textOf(int file) {
    struct stat state {};
    fstat(file, &state);
    std::string text(static_cast<std::size_t>(state.st_size), '\0');
    const ssize_t size = pread(file, text.data(), text.size(), 0);
    return text.substr(0, static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
}

} // namespace nelvo::testkit
