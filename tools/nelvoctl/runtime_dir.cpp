// SPDX-License-Identifier: Apache-2.0
#include "runtime_dir.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>

#include <sys/stat.h>
#include <unistd.h>

#include <host/actions.h>
#include <host/runtime_dir.h>

namespace nelvoctl {

namespace {

const std::string SOCKET_ENDING = ":message";

struct Environment {
    std::function<std::string(const char *)> lookup;
    std::string value; // of the latest variable that was looked up
};

const char *lookUpCb(const char *name, void *data) {
    Environment &environment = *static_cast<Environment *>(data);
    return (environment.value = environment.lookup(name)).c_str();
}

// A path that the platform has allocated; empty if memory is short.
std::string take(char *path) {
    const std::unique_ptr<char, void (*)(void *)> owned(path, std::free);
    return path ? path : "";
}

} // namespace

std::string runtimeDir() {
    return take(host_runtime_dir(nullptr, nullptr));
}

std::string runtimeDir(std::function<std::string(const char *)> lookup) {
    Environment environment{std::move(lookup), ""};
    return take(host_runtime_dir(lookUpCb, &environment));
}

std::string actionsPath(const std::string &program,
                        std::function<std::string(const char *)> lookup) {
    Environment environment{std::move(lookup), ""};
    return take(host_actions_path(program.c_str(), lookUpCb, &environment));
}

bool isRuntimeDir(const std::string &path) {
    std::error_code error;
    return std::filesystem::equivalent(path, runtimeDir(), error);
}

std::string faultOf(const std::string &dir) {
    struct stat state {};
    if (lstat(dir.c_str(), &state) != 0)
        return errno == ENOENT ? "" : std::strerror(errno); // the platform creates it
    if (!S_ISDIR(state.st_mode))
        return "is a link or no directory";
    if (state.st_uid != geteuid())
        return "belongs to another user";
    return (state.st_mode & 077) != 0 ? "is open to other users" : "";
}

std::vector<std::string> listedApps(const std::string &dir) {
    std::vector<std::string> ids;
    std::error_code error;
    for (const auto &entry : std::filesystem::directory_iterator(dir, error)) {
        const std::string name = entry.path().filename();
        const std::size_t end = name.find(SOCKET_ENDING);
        if (entry.is_socket(error) && end != std::string::npos &&
            end + SOCKET_ENDING.size() == name.size())
            ids.push_back(name.substr(0, end));
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

} // namespace nelvoctl
