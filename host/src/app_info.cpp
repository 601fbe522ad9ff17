// SPDX-License-Identifier: Apache-2.0
#include <app_info.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits.h>
#include <memory>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <app_common.h>
#include <dlog.h>
#include <host/app_id.h>
#include <host/sim.h>

#include "log_tag.h"
#include "manifest_parser.h"
#include "unique_fd.h"

struct app_info_s {
    std::shared_ptr<const host::Application> application; // keeps the manifest that it is part of
};

namespace host {

namespace {

constexpr const char *MANIFEST_NAME = "tizen-manifest.xml";
constexpr std::size_t LONGEST_NAME = 127;

Manifest parseFile(const std::string &path) {
    // Not blocking: the path may be that of a pipe that nobody writes to.
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status;
    if (!file || fstat(file.get(), &status) != 0)
        return {{}, path + ": " + std::strerror(errno)};
    if (!S_ISREG(status.st_mode))
        return {{}, path + ": not a file"};
    std::string xml;
    char piece[4096];
    ssize_t size = 0;
    while (xml.size() <= LARGEST_MANIFEST && (size = read(file.get(), piece, sizeof piece)) > 0)
        xml.append(piece, static_cast<std::size_t>(size));
    if (size < 0)
        return {{}, path + ": " + std::strerror(errno), true};
    return ManifestParser().parse(xml, path);
}

std::string manifestPath() {
    const char *named = std::getenv("NELVO_HOST_MANIFEST");
    if (named && *named != '\0')
        return named;
    char executable[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", executable, sizeof executable);
    std::string path(executable, length > 0 ? static_cast<std::size_t>(length) : 0);
    path.resize(path.rfind('/') + 1); // empty when /proc is missing: the current folder
    return path + MANIFEST_NAME;
}

// What app_get_id() has found: it is asked for with every answer, and to look through the
// environment each time would take longer than anything else that is done about it.
struct KnownId {
    std::mutex mutex;
    std::string id;       // empty: not known yet
    bool isGiven = false; // by host_set_app_id(), and so none that a manifest can change

    static KnownId &instance() { // never destroyed, as below
        static KnownId &instance = *new KnownId;
        return instance;
    }
};

void rememberId(const std::string &id, bool isGiven) {
    KnownId &known = KnownId::instance();
    std::lock_guard<std::mutex> lock(known.mutex);
    if (known.isGiven && !isGiven)
        return;
    known.id = id;
    known.isGiven = isGiven;
}

// Null: not known, or no memory. The caller frees it.
char *copyOfKnownId() {
    KnownId &known = KnownId::instance();
    std::lock_guard<std::mutex> lock(known.mutex);
    return known.id.empty() ? nullptr : strdup(known.id.c_str());
}

using SharedManifest = std::shared_ptr<const Manifest>;

// Read and written atomically. Null: not needed yet. Never destroyed: applications ask from their
// own destructors.
SharedManifest &current() {
    static SharedManifest &instance = *new SharedManifest;
    return instance;
}

void logIfBroken(const Manifest &manifest) {
    if (manifest.isBroken)
        dlog_print(DLOG_ERROR, LOG_TAG, "The manifest is not used: %s", manifest.problem.c_str());
}

SharedManifest manifest() {
    SharedManifest known = std::atomic_load(&current());
    if (known)
        return known;
    auto read = std::make_shared<const Manifest>(parseFile(manifestPath()));
    if (!std::atomic_compare_exchange_strong(&current(), &known, SharedManifest(read)))
        return known; // another thread was faster
    logIfBroken(*read);
    return read;
}

void install(Manifest parsed) {
    auto installed = std::make_shared<const Manifest>(std::move(parsed));
    std::atomic_store(&current(), SharedManifest(installed));
    rememberId({}, false);
    logIfBroken(*installed);
}

// Once: the application may ask again with every request.
void logMissingId(const std::string &problem) {
    static std::atomic<bool> isLogged{false};
    if (!isLogged.exchange(true))
        dlog_print(DLOG_ERROR, LOG_TAG,
                   "This process has no application id: %s. Put a %s beside the executable, name "
                   "one in NELVO_HOST_MANIFEST, or set NELVO_HOST_APP_ID.",
                   problem.c_str(), MANIFEST_NAME);
}

// Empty: there is none, which has been logged.
std::string ownId() {
    const char *named = std::getenv("NELVO_HOST_APP_ID");
    if (named && *named != '\0') {
        if (isValidName(named))
            return named;
        logMissingId("NELVO_HOST_APP_ID is \"" + std::string(named) + "\"; " + VALID_NAME_HINT);
        return {};
    }
    const SharedManifest known = manifest();
    if (!known->applications.empty())
        return known->applications.front().id;
    logMissingId(known->problem);
    return {};
}

// Null: not in the manifest.
app_info_h findApplication(const char *id) {
    const SharedManifest known = manifest();
    for (const Application &application : known->applications) {
        if (application.id == id)
            return new app_info_s{{known, &application}};
    }
    return nullptr;
}

} // namespace

bool isValidName(const char *text) {
    constexpr const char *CHARACTERS =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    const std::size_t length = text ? std::strspn(text, CHARACTERS) : 0;
    return length > 0 && length <= LONGEST_NAME && text[length] == '\0' && text[0] != '.' &&
           text[0] != '-' && !std::strstr(text, "..");
}

} // namespace host

int app_get_id(char **id) {
    if (!id)
        return APP_ERROR_INVALID_PARAMETER;
    try {
        char *copy = host::copyOfKnownId();
        if (!copy) {
            const std::string own = host::ownId();
            if (own.empty())
                return APP_ERROR_INVALID_CONTEXT;
            host::rememberId(own, false);
            copy = host::copyOfKnownId();
        }
        if (!copy)
            return APP_ERROR_OUT_OF_MEMORY;
        *id = copy;
        return APP_ERROR_NONE;
    } catch (...) {
        return APP_ERROR_OUT_OF_MEMORY;
    }
}

int host_set_app_id(const char *id) {
    if (!host::isValidName(id))
        return APP_ERROR_INVALID_PARAMETER;
    try {
        host::rememberId(id, true);
        return APP_ERROR_NONE;
    } catch (...) {
        return APP_ERROR_OUT_OF_MEMORY;
    }
}

int app_info_create(const char *app_id, app_info_h *app_info) {
    if (!app_id || !app_info)
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    try {
        const app_info_h found = host::findApplication(app_id);
        if (!found)
            return APP_MANAGER_ERROR_NO_SUCH_APP;
        *app_info = found;
        return APP_MANAGER_ERROR_NONE;
    } catch (...) {
        return APP_MANAGER_ERROR_OUT_OF_MEMORY;
    }
}

int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback, void *user_data) {
    if (!app_info || !callback)
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    const auto application = app_info->application; // the callback may destroy the handle
    for (const auto &[key, value] : application->metadata) {
        if (!callback(key.c_str(), value.c_str(), user_data))
            break;
    }
    return APP_MANAGER_ERROR_NONE;
}

int app_info_destroy(app_info_h app_info) {
    delete app_info;
    return app_info ? APP_MANAGER_ERROR_NONE : APP_MANAGER_ERROR_INVALID_PARAMETER;
}

void host_sim_set_manifest(const char *xml) {
    try {
        host::install(xml ? host::ManifestParser().parse(xml, "installed manifest")
                          : host::Manifest{{}, "the manifest has been uninstalled"});
    } catch (...) {
        // The manifest stays as it was.
        dlog_print(DLOG_ERROR, host::LOG_TAG, "No memory for the manifest");
    }
}
