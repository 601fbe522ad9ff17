// SPDX-License-Identifier: Apache-2.0
// Starts programs in turn, again and again, and prints what each took from before fork() until it
// reported to be ready, what it says that its initialisation took, and its memory. One JSON object
// per program.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "clock.h"
#include "harness.h"

namespace {

struct Program {
    const char *file;
    std::vector<std::int64_t> readyAfter;
    std::vector<std::int64_t> initialize;
    bench::Memory memory;
};

void start(Program &program, const std::string &folder) {
    int fds[2];
    bench::check(mkdir(folder.c_str(), 0700) == 0, "make a folder");
    bench::check(setenv("NELVO_HOST_RUNTIME_DIR", folder.c_str(), 1) == 0, "set a variable");
    bench::check(pipe(fds) == 0, "make a pipe");
    const std::string ready = std::to_string(fds[1]);
    const std::int64_t begun = bench::now();
    const pid_t child = fork();
    bench::check(child >= 0, "fork");
    if (child == 0) {
        execl(program.file, program.file, ready.c_str(), nullptr);
        bench::die(std::string("could not start ") + program.file);
    }
    close(fds[1]);
    std::int64_t initialize = 0;
    bench::require(read(fds[0], &initialize, sizeof initialize) == sizeof initialize, "start");
    program.readyAfter.push_back(bench::now() - begun);
    program.initialize.push_back(initialize);
    program.memory = bench::memoryOf(child);
    close(fds[0]);
    kill(child, SIGKILL);
    bench::check(waitpid(child, nullptr, 0) == child, "wait");
}

double median(std::vector<std::int64_t> &times) {
    std::sort(times.begin(), times.end());
    return static_cast<double>(times[times.size() / 2]) / 1000;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 4)
        bench::die("usage: bench_start FOLDER TIMES PROGRAM...");
    std::vector<Program> programs;
    for (int i = 3; i < argc; ++i)
        programs.push_back({argv[i], {}, {}, {}});

    bench::pinToOneCore();
    int folder = 0;
    for (int times = std::atoi(argv[2]); times > 0; --times)
        for (Program &program : programs)
            start(program, std::string(argv[1]) + "/" + std::to_string(folder++));
    for (Program &program : programs)
        std::printf("{\"start\": %.3f, \"initialize\": %.3f, \"peak\": %ld, "
                    "\"private_dirty\": %ld}\n",
                    median(program.readyAfter), median(program.initialize), program.memory.peak,
                    program.memory.privateDirty);
}
