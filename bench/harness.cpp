// SPDX-License-Identifier: Apache-2.0
#include "harness.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "clock.h"

namespace bench {

namespace {

Options parse(int argc, char **argv) {
    Options options;
    if (argc != 6)
        die("usage: PROGRAM FOLDER PAYLOAD WARM_UP REQUESTS IDLE_CLIENTS");
    options.folder = argv[1];
    options.payload = std::strtoul(argv[2], nullptr, 10);
    options.warmUp = std::atoi(argv[3]);
    options.requests = std::atoi(argv[4]);
    options.idle = std::atoi(argv[5]);
    return options;
}

void allowManyDescriptors() {
    rlimit limit{};
    check(getrlimit(RLIMIT_NOFILE, &limit) == 0, "ask for the limit of descriptors");
    limit.rlim_cur = limit.rlim_max;
    check(setrlimit(RLIMIT_NOFILE, &limit) == 0, "raise the limit of descriptors");
}

struct Server {
    pid_t process = -1;
    std::int64_t initializeNanoseconds = 0;
};

Server startServer(const Peer &peer, const Options &options) {
    int fds[2];
    check(pipe(fds) == 0, "make a pipe");
    Server server;
    server.process = fork();
    check(server.process >= 0, "fork");
    if (server.process == 0) {
        close(fds[0]);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        peer.serve(options, fds[1]);
        _exit(0);
    }
    close(fds[1]);
    require(read(fds[0], &server.initializeNanoseconds, sizeof server.initializeNanoseconds) ==
                sizeof server.initializeNanoseconds,
            "start the server");
    close(fds[0]);
    return server;
}

double microseconds(const std::vector<std::int64_t> &sorted, double quantile) {
    const auto last = static_cast<double>(sorted.size() - 1);
    return static_cast<double>(sorted[static_cast<std::size_t>(quantile * last)]) / 1000;
}

void report(std::vector<std::int64_t> times, const Server &server, const Memory &before,
            const Memory &after) {
    std::sort(times.begin(), times.end());
    std::printf("{\"p50\": %.3f, \"p99\": %.3f, \"p99.9\": %.3f, \"initialize\": %.3f, "
                "\"peak\": %ld, \"private_dirty\": %ld, \"growth\": %ld}\n",
                microseconds(times, 0.5), microseconds(times, 0.99), microseconds(times, 0.999),
                static_cast<double>(server.initializeNanoseconds) / 1000, after.peak,
                after.privateDirty, after.resident - before.resident);
}

void measure(const Peer &peer, const Options &options) {
    const Server server = startServer(peer, options);
    auto client = peer.connect(options);
    for (int i = 0; i < options.warmUp; ++i)
        client->roundTrip();
    const Memory before = memoryOf(server.process);
    std::vector<std::int64_t> times(static_cast<std::size_t>(options.requests));
    for (std::int64_t &time : times) {
        const std::int64_t start = now();
        client->roundTrip();
        time = now() - start;
    }
    const Memory after = memoryOf(server.process);
    client->stopServer(server.process);
    client.reset();
    check(waitpid(server.process, nullptr, 0) == server.process, "wait for the server");
    if (!times.empty())
        report(std::move(times), server, before, after);
}

} // namespace

void Client::stopServer(pid_t server) {
    kill(server, SIGTERM);
}

int run(int argc, char **argv, const Peer &peer) {
    const Options options = parse(argc, argv);
    signal(SIGPIPE, SIG_IGN);
    pinToOneCore();
    allowManyDescriptors();
    measure(peer, options);
    return 0;
}

// The last core that we may use; the first ones get most interrupts.
void pinToOneCore() {
    cpu_set_t cores;
    check(sched_getaffinity(0, sizeof cores, &cores) == 0, "ask for the cores");
    int last = CPU_SETSIZE - 1;
    while (!CPU_ISSET(last, &cores))
        --last;
    CPU_ZERO(&cores);
    CPU_SET(last, &cores);
    check(sched_setaffinity(0, sizeof cores, &cores) == 0, "choose a core");
}

void die(const std::string &what) {
    std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, what.c_str());
    std::exit(1);
}

void require(bool worked, const char *what) {
    if (!worked)
        die(std::string("could not ") + what);
}

void check(bool worked, const char *what) {
    if (!worked)
        die(std::string("could not ") + what + ": " + std::strerror(errno));
}

std::string text(std::size_t size) {
    return std::string(size, 'x');
}

Memory memoryOf(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process) + "/";
    Memory memory;
    const auto readField = [&folder](const char *file, const std::string &name, long &value) {
        std::ifstream lines(folder + file);
        for (std::string line; std::getline(lines, line);)
            if (line.compare(0, name.size(), name) == 0)
                value = std::strtol(line.c_str() + name.size(), nullptr, 10);
    };
    readField("status", "VmHWM:", memory.peak);
    readField("smaps_rollup", "Rss:", memory.resident);
    readField("smaps_rollup", "Private_Dirty:", memory.privateDirty);
    return memory;
}

} // namespace bench
