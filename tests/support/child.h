// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

// Runs work in a child process, for what the platform decides once per process, and returns what it
// wrote to stderr; nothing but "failed" of a child that failed.
template <typename Work>
std::string stderrOfChild(Work work) {
    const int file = memfd_create("stderr", 0);
    std::fflush(nullptr); // or the child would print what is buffered
    const pid_t child = fork();
    if (child == 0) {
        dup2(file, STDERR_FILENO);
        work();
        std::exit(0); // not _exit(): on the way out a coverage build notes what was reached
    }
    int status = -1;
    waitpid(child, &status, 0);
    std::string output(100000, '\0');
    const ssize_t size = pread(file, output.data(), output.size(), 0);
    close(file);
    return status == 0 && size >= 0 ? output.substr(0, static_cast<std::size_t>(size)) : "failed";
}
