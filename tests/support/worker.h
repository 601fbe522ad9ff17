// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <csignal>
#include <cstdio>
#include <exception>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace nelvo::testkit {

// A child process that does a piece of work; killed and reaped when it goes out of scope.
class Worker {
public:
    // The work's result is the exit code; 1 after an exception.
    template <typename Work>
    explicit Worker(Work work) {
        std::fflush(nullptr);
        _pid = fork();
        if (_pid != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        int code = 1;
        try {
            code = work();
        } catch (const std::exception &error) {
            std::fprintf(stderr, "%s\n", error.what());
        }
        std::fflush(nullptr);
        _exit(code);
    }
    Worker(const Worker &) = delete;
    Worker &operator=(const Worker &) = delete;
    ~Worker() {
        if (_pid > 0)
            kill(_pid, SIGKILL);
        wait();
    }

    // The exit code; -1 when a signal ended it.
    int wait() {
        int status = -1;
        if (_pid > 0)
            waitpid(_pid, &status, 0);
        _pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t _pid = -1;
};

} // namespace nelvo::testkit
