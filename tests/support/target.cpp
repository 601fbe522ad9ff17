// SPDX-License-Identifier: Apache-2.0
#include "target.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <host/sim.h>
#include <nelvo.h>

#include "process.h"

namespace nelvo::testkit {
namespace {

namespace fs = std::filesystem;

constexpr const char *APP_ID = "demo.hello";
constexpr std::size_t FLOOD_BYTES = std::size_t{1} << 20;

void useFolder(const std::string &folder) {
    setenv("NELVO_HOST_RUNTIME_DIR", folder.c_str(), 1);
    unsetenv("NELVO_HOST_APP_ID");
    unsetenv("NELVO_HOST_MANIFEST");
}

void greet(void *handler, bundle *request, void *calls) {
    char *name = nullptr;
    ++*static_cast<int *>(calls);
    const bool isNamed = bundle_get_str(request, "actionParams", &name) == BUNDLE_ERROR_NONE;
    const std::string greeting = std::string("Hello, ") + (isNamed ? name : "world") + "!";
    nelvo_complete_action_execution(handler, greeting.c_str());
}

void flood(void *handler, bundle *, void *calls) {
    ++*static_cast<int *>(calls);
    nelvo_complete_action_execution(handler, std::string(FLOOD_BYTES, 'x').c_str());
}

void tellState(void *handler, void *calls) {
    ++*static_cast<int *>(calls);
    nelvo_complete_app_state_request(handler, "{}");
}

} // namespace

SocketFolder::SocketFolder() {
    fs::current_path(fs::read_symlink("/proc/self/exe").parent_path());
    char name[] = "sockets.XXXXXX";
    if (!mkdtemp(name))
        throw std::runtime_error("no folder for sockets in " + fs::current_path().string());
    _path = name;
}

SocketFolder::~SocketFolder() {
    std::error_code ignored;
    fs::remove_all(_path, ignored);
}

Target::Target(const std::string &folder) : path(folder + "/demo.hello:message") {}

int Target::descriptors() const {
    int count = 0;
    for ([[maybe_unused]] const auto &entry : fs::directory_iterator("/proc/" + _process + "/fd"))
        ++count;
    return count;
}

long Target::memory() const {
    long pages = 0;
    std::ifstream("/proc/" + _process + "/statm") >> pages;
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

LocalTarget::LocalTarget(const std::string &folder) : Target(folder) {
    useFolder(folder);
    host_sim_set_manifest("<manifest><ui-application appid=\"demo.hello\"><metadata key="
                          "\"http://developer.tizen.org/tizen/metadata/nelvo/sdk/version\" "
                          "value=\"1.0\"/></ui-application></manifest>");
    if (nelvo_initialize() != NELVO_ERROR_NONE)
        throw std::runtime_error("the application can't listen at " + path);
    _device.emplace(APP_ID);
    nelvo_set_action_execution_cb("greet", greet, &calls);
    nelvo_set_action_execution_cb("flood", flood, &calls);
    nelvo_set_app_state_request_cb(tellState, &calls);
}

LocalTarget::~LocalTarget() {
    nelvo_deinitialize();
}

bool LocalTarget::until(const std::function<bool()> &condition) {
    pass(0);
    return condition();
}

void LocalTarget::pass(double seconds) {
    _device->advance(seconds);
    _device->clearLog();
}

RawSession LocalTarget::record(const std::vector<std::string> &actionIds) {
    return recordSession([&] {
        Client client("demo.client");
        client.connect();
        client.setCb();
        std::uint64_t id = 0;
        for (const std::string &actionId : actionIds)
            client.request(actionId, ++id);
        client.disconnect();
    });
}

ExampleTarget::ExampleTarget(const std::string &folder, const std::string &program,
                             const char *logLevel, unsigned descriptorLimit)
    : Target(folder), _log(memfd_create("log", MFD_CLOEXEC)) {
    _pid = fork();
    if (_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        useFolder(folder);
        setenv("NELVO_LOG", logLevel, 1);
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = std::min<rlim_t>(descriptorLimit, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
        dup2(_log, STDERR_FILENO);
        execl(program.c_str(), program.c_str(), nullptr);
        _exit(127);
    }
    _process = std::to_string(_pid);
    until([&] { return RawSocket(path).isConnected(); });
}

ExampleTarget::~ExampleTarget() {
    kill(_pid, SIGKILL);
    waitpid(_pid, nullptr, 0);
    close(_log);
}

bool ExampleTarget::until(const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (!condition()) {
        if (!isAlive() || std::chrono::steady_clock::now() > deadline)
            return false;
        poll(nullptr, 0, 1); // the application's turn
    }
    return true;
}

std::string ExampleTarget::log() const {
    struct stat state {};
    fstat(_log, &state);
    std::string text(static_cast<std::size_t>(state.st_size), '\0');
    return pread(_log, text.data(), text.size(), 0) < 0 ? "" : text;
}

bool ExampleTarget::isAlive() const {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(_pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

} // namespace nelvo::testkit
