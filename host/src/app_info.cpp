// SPDX-License-Identifier: Apache-2.0
#include <app_info.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits.h>
#include <memory>
#include <mutex>
#include <string>
#include <unistd.h>
#include <utility>

#include <app_common.h>
#include <dlog.h>
#include <host/actions.h>
#include <host/app_id.h>
#include <host/manifest.h>
#include <host/sim.h>

#include "app_id.h"
#include "log_tag.h"
#include "manifest.h"
#include "names.h"

struct app_info_s {
    std::shared_ptr<const host::Application> application; // shares ownership of its manifest
};

namespace host {

namespace {

constexpr const char *MANIFEST_NAME = "tizen-manifest.xml";
constexpr const char *ACTIONS_NAME = "nelvo-actions.json";

using SharedManifest = std::shared_ptr<const Manifest>;

std::string manifestPath() {
    const char *named = std::getenv("NELVO_HOST_MANIFEST");
    if (named && *named)
        return named;
    char executable[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", executable, sizeof executable);
    std::string path(executable, length > 0 ? static_cast<std::size_t>(length) : 0);
    path.resize(path.rfind('/') + 1); // without /proc it is empty: the working directory
    return path + MANIFEST_NAME;
}

const char *ownVariable(const char *name, void *) {
    return std::getenv(name);
}

// The value of the variable; empty if it is not set.
std::string valueOf(const char *name, host_environment lookup, void *data) {
    const char *const value = (lookup ? lookup : ownVariable)(name, data);
    return value ? value : "";
}

std::string actionsPath(const char *program, host_environment lookup, void *data) {
    if (const std::string named = valueOf("NELVO_HOST_ACTIONS", lookup, data); !named.empty())
        return named;
    const std::string manifest = valueOf("NELVO_HOST_MANIFEST", lookup, data);
    const std::string beside = manifest.empty() ? program : manifest;
    return beside.substr(0, beside.rfind('/') + 1) + ACTIONS_NAME;
}

// What this process knows about itself. Never destroyed: applications ask from static destructors.
//
// The id is kept because the library asks for it with every answer, and a search through the
// environment would cost more than all else that is done with it.
struct Identity {
    std::mutex mutex;        // guards the other members
    SharedManifest manifest; // null until it is needed
    std::string id;          // empty until it is needed
    bool isGiven = false;    // the id comes from host_set_app_id(), so that no manifest changes it

    static Identity &instance() {
        static Identity &instance = *new Identity;
        return instance;
    }
};

void rememberId(const std::string &id, bool isGiven) {
    Identity &own = Identity::instance();
    std::lock_guard<std::mutex> lock(own.mutex);
    if (own.isGiven && !isGiven)
        return;
    own.id = id;
    own.isGiven = isGiven;
}

// Null when the id is not known yet or memory ran out. The caller frees it.
char *copyOfKnownId() {
    Identity &own = Identity::instance();
    std::lock_guard<std::mutex> lock(own.mutex);
    return own.id.empty() ? nullptr : strdup(own.id.c_str());
}

// Not under the lock: whoever receives the log may ask for the id.
void logIfBroken(const Manifest &manifest) {
    if (manifest.isBroken)
        dlog_print(DLOG_ERROR, LOG_TAG, "The manifest is not used: %s", manifest.problem.c_str());
}

SharedManifest manifest() {
    Identity &own = Identity::instance();
    std::unique_lock<std::mutex> lock(own.mutex);
    if (own.manifest)
        return own.manifest;
    const auto read = std::make_shared<const Manifest>(readManifest(manifestPath()));
    own.manifest = read;
    lock.unlock();
    logIfBroken(*read);
    return read;
}

void install(Manifest parsed) {
    const auto installed = std::make_shared<const Manifest>(std::move(parsed));
    Identity &own = Identity::instance();
    {
        std::lock_guard<std::mutex> lock(own.mutex);
        own.manifest = installed;
        if (!own.isGiven)
            own.id.clear();
    }
    logIfBroken(*installed);
}

// Logged once only: the application may ask with every request.
void logMissingId(const std::string &problem) {
    static std::atomic<bool> isLogged{false};
    if (!isLogged.exchange(true))
        dlog_print(DLOG_ERROR, LOG_TAG,
                   "This process has no application id: %s. Put a %s beside the executable, name "
                   "one in NELVO_HOST_MANIFEST, or set NELVO_HOST_APP_ID.",
                   problem.c_str(), MANIFEST_NAME);
}

// Empty when there is none; that has been logged.
std::string ownId() {
    const char *named = std::getenv("NELVO_HOST_APP_ID");
    if (named && *named) {
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

void warnOfMissing(const Manifest &manifest, const char *id) {
    if (manifest.applications.empty() && !manifest.isBroken)
        dlog_print(
            DLOG_WARN, LOG_TAG,
            "There is no manifest for %s: %s. A device would not start an application without "
            "one; put a %s beside the executable or name one in NELVO_HOST_MANIFEST.",
            id, manifest.problem.c_str(), MANIFEST_NAME);
}

// Returns an application manager's error code.
int findApplication(const SharedManifest &manifest, const char *id, app_info_h *info) {
    for (const Application &application : manifest->applications) {
        if (application.id == id) {
            *info = new app_info_s{{manifest, &application}};
            return APP_MANAGER_ERROR_NONE;
        }
    }
    return APP_MANAGER_ERROR_NO_SUCH_APP;
}

} // namespace

std::string ownAppId() {
    char *id = nullptr;
    if (app_get_id(&id) != 0)
        return {};
    const std::unique_ptr<char, void (*)(void *)> owned(id, std::free);
    return id;
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
        const host::SharedManifest known = host::manifest();
        host::warnOfMissing(*known, app_id);
        return host::findApplication(known, app_id, app_info);
    } catch (...) {
        return APP_MANAGER_ERROR_OUT_OF_MEMORY;
    }
}

int host_manifest_find_app(const char *path, const char *app_id, app_info_h *app_info) {
    if (!path || !app_id || !app_info)
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    try {
        const auto read = std::make_shared<const host::Manifest>(host::readManifest(path));
        return host::findApplication(read, app_id, app_info);
    } catch (...) {
        return APP_MANAGER_ERROR_OUT_OF_MEMORY;
    }
}

char *host_actions_path(const char *program, host_environment lookup, void *data) {
    try {
        return program ? strdup(host::actionsPath(program, lookup, data).c_str()) : nullptr;
    } catch (...) {
        return nullptr;
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
        host::install(xml ? host::parseManifest(xml, "installed manifest")
                          : host::Manifest{{}, "the manifest has been uninstalled"});
    } catch (...) {
        // The manifest stays as it was.
        dlog_print(DLOG_ERROR, host::LOG_TAG, "No memory for the manifest");
    }
}
