// SPDX-License-Identifier: Apache-2.0
#include "processes.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include <app_info.h>
#include <host/manifest.h>

#include "runtime_dir.h"

namespace nelvoctl {

namespace fs = std::filesystem;

namespace {

const char *const SDK_VERSION_KEY = "http://developer.tizen.org/tizen/metadata/nelvo/sdk/version";

// The content of the file: empty without permission, incomplete if the process ends meanwhile.
std::string contentOf(const fs::path &path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

// The value of the variable in a process's initial environment, a list of zero-terminated
// NAME=VALUE.
std::string lookUp(const std::string &environment, const char *name) {
    const std::string all = '\0' + environment;
    const std::string start = '\0' + std::string(name) + '=';
    const std::size_t found = all.find(start);
    return found == std::string::npos ? "" : all.c_str() + found + start.size();
}

bool takeVersionCb(const char *key, const char *value, void *version) {
    if (std::strcmp(key, SDK_VERSION_KEY) == 0)
        *static_cast<std::string *>(version) = value;
    return true;
}

// The state follows the program's name, which may itself contain brackets and blanks.
char stateOf(const fs::path &folder) {
    const std::string stat = contentOf(folder / "stat");
    const std::size_t end = stat.rfind(") ");
    return end == std::string::npos || end + 2 >= stat.size() ? '?' : stat[end + 2];
}

AppProcess describe(const fs::path &folder, const std::string &environment) {
    std::error_code error;
    const fs::path program = fs::read_symlink(folder / "exe", error);
    const fs::path cwd = fs::read_symlink(folder / "cwd", error);
    const std::string named = lookUp(environment, "NELVO_HOST_MANIFEST");
    const fs::path manifest =
        named.empty() ? program.parent_path() / "tizen-manifest.xml" : cwd / named;
    const auto look = [&](const char *name) { return lookUp(environment, name); };
    return {std::stoi(folder.filename()),
            program,
            manifest,
            cwd / actionsPath(program, look),
            cwd / nelvoctl::runtimeDir(look),
            stateOf(folder)};
}

} // namespace

bool AppProcess::isHere() const {
    return isRuntimeDir(runtimeDir);
}

const char *AppProcess::activity() const {
    switch (state) {
    case 'T':
    case 't':
        return "is stopped";
    case 'R':
        return "is computing";
    default:
        return "waits inside a call";
    }
}

bool Manifest::isAdmitted() const {
    return !isRead || (!sdkVersion.empty() && sdkVersion.find("1.0-alpha") == std::string::npos);
}

std::string Manifest::found() const {
    if (!isRead)
        return "cannot be used, or does not name the application; the gate is open then";
    return sdkVersion.empty() ? "gives no SDK version" : "gives the SDK version " + sdkVersion;
}

Manifest readManifest(const std::string &path, const std::string &appId) {
    Manifest manifest;
    app_info_h info = nullptr;
    if (host_manifest_find_app(path.c_str(), appId.c_str(), &info) != APP_MANAGER_ERROR_NONE)
        return manifest;
    manifest.isRead = true;
    app_info_foreach_metadata(info, takeVersionCb, &manifest.sdkVersion);
    app_info_destroy(info);
    return manifest;
}

std::vector<AppProcess> findProcesses(const std::string &appId) {
    std::vector<AppProcess> found;
    std::error_code error;
    for (const auto &entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos ||
            name == std::to_string(getpid()) ||
            contentOf(entry.path() / "maps").find("/libnelvo.so") == std::string::npos)
            continue;
        const std::string environment = contentOf(entry.path() / "environ");
        const AppProcess process = describe(entry.path(), environment);
        const std::string named = lookUp(environment, "NELVO_HOST_APP_ID");
        if (named == appId || (named.empty() && readManifest(process.manifest, appId).isRead))
            found.insert(process.isHere() ? found.begin() : found.end(), process);
    }
    return found;
}

} // namespace nelvoctl
