// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include <sys/wait.h>
#include <unistd.h>

// Runs work in a child process, for what the platform decides once per process, and returns what it
// wrote to stderr; a child that fails adds a line of its own.
template <typename Work>
std::string stderrOfChild(Work work) {
    int ends[2];
    if (pipe(ends) != 0)
        return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        work();
        _exit(0);
    }
    close(ends[1]);
    std::string output;
    char piece[4096];
    for (ssize_t size = 0; (size = read(ends[0], piece, sizeof piece)) > 0;)
        output.append(piece, static_cast<std::size_t>(size));
    close(ends[0]);
    int status = 0;
    if (waitpid(child, &status, 0) != child || status != 0)
        output += "\nchild failed with status " + std::to_string(status);
    return output;
}
