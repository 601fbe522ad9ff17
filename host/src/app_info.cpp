// SPDX-License-Identifier: Apache-2.0
#include <app_info.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits.h>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include <app_common.h>
#include <dlog.h>
#include <host/sim.h>

#include "log_tag.h"
#include "manifest_parser.h"

struct app_info_s {
    std::shared_ptr<const host::Manifest> manifest; // keeps application
    const host::Application *application;
};

namespace host {

namespace {

constexpr const char *MANIFEST_NAME = "tizen-manifest.xml";
constexpr std::size_t LONGEST_NAME = 127;

class File {
public:
    // Not blocking: the path may be that of a pipe that nobody writes to.
    explicit File(const std::string &path)
        : _fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    ~File() {
        if (_fd >= 0)
            close(_fd);
    }

    bool isOpen() const { return _fd >= 0; }

    bool isRegular() const {
        struct stat status;
        return fstat(_fd, &status) == 0 && S_ISREG(status.st_mode);
    }

    // 0 at the end, negative with errno on failure.
    ssize_t read(void *to, std::size_t size) { return ::read(_fd, to, size); }

private:
    const int _fd;
};

Manifest parseFile(const std::string &path) {
    Manifest manifest;
    File file(path);
    if (!file.isOpen() || !file.isRegular()) {
        manifest.problem = path + ": " + (file.isOpen() ? "not a file" : std::strerror(errno));
        return manifest;
    }
    ManifestParser parser(manifest, path);
    std::array<char, 4096> piece;
    for (;;) {
        const ssize_t size = file.read(piece.data(), piece.size());
        if (size < 0) {
            parser.fail(std::string(": ") + std::strerror(errno));
            return manifest;
        }
        const bool isLast = size == 0;
        if (!parser.feed({piece.data(), static_cast<std::size_t>(size)}, isLast) || isLast)
            return manifest;
    }
}

std::string manifestPath() {
    const char *named = std::getenv("NELVO_HOST_MANIFEST");
    if (named != nullptr && *named != '\0')
        return named;
    std::string path(PATH_MAX, '\0');
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
    path.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    path.resize(path.rfind('/') + 1); // empty when /proc is missing: the current folder
    return path + MANIFEST_NAME;
}

// Null: not needed yet. Neither is ever destroyed: applications ask from their own destructors.
struct Current {
    std::mutex mutex;
    std::shared_ptr<const Manifest> manifest;
};

Current &current() {
    static Current &instance = *new Current;
    return instance;
}

// Call without the lock: whoever takes the log may ask for the manifest.
void logIfBroken(const Manifest &manifest) {
    if (manifest.isBroken)
        dlog_print(DLOG_ERROR, LOG_TAG, "The manifest is not used: %s", manifest.problem.c_str());
}

std::shared_ptr<const Manifest> manifest() {
    {
        std::lock_guard<std::mutex> lock(current().mutex);
        if (current().manifest != nullptr)
            return current().manifest;
    }
    std::shared_ptr<const Manifest> read =
        std::make_shared<const Manifest>(parseFile(manifestPath()));
    {
        std::lock_guard<std::mutex> lock(current().mutex);
        if (current().manifest != nullptr)
            return current().manifest; // another thread was faster
        current().manifest = read;
    }
    logIfBroken(*read);
    return read;
}

void install(const char *xml) {
    Manifest parsed;
    if (xml == nullptr)
        parsed.problem = "the manifest has been uninstalled";
    else
        ManifestParser(parsed, "installed manifest").feed({xml, std::strlen(xml)}, true);
    std::shared_ptr<const Manifest> installed = std::make_shared<const Manifest>(std::move(parsed));
    {
        std::lock_guard<std::mutex> lock(current().mutex);
        current().manifest = installed;
    }
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
    if (named != nullptr && *named != '\0') {
        if (isValidName(named))
            return named;
        logMissingId("NELVO_HOST_APP_ID is \"" + std::string(named) + "\"; " + VALID_NAME_HINT);
        return {};
    }
    const std::shared_ptr<const Manifest> known = manifest();
    if (!known->applications.empty())
        return known->applications.front().id;
    logMissingId(known->problem);
    return {};
}

std::unique_ptr<app_info_s> findApplication(const char *id) {
    std::shared_ptr<const Manifest> known = manifest();
    for (const Application &application : known->applications) {
        if (application.id == id)
            return std::unique_ptr<app_info_s>(new app_info_s{known, &application});
    }
    return nullptr;
}

bool isNameCharacter(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
           c == '_' || c == '-';
}

} // namespace

bool isValidName(const char *text) {
    if (text == nullptr || *text == '\0' || *text == '.' || *text == '-')
        return false;
    std::size_t length = 0;
    for (; text[length] != '\0'; length++) {
        const bool isDoubleDot = text[length] == '.' && text[length + 1] == '.';
        if (length == LONGEST_NAME || !isNameCharacter(text[length]) || isDoubleDot)
            return false;
    }
    return true;
}

} // namespace host

int app_get_id(char **id) {
    if (id == nullptr)
        return APP_ERROR_INVALID_PARAMETER;
    try {
        const std::string own = host::ownId();
        if (own.empty())
            return APP_ERROR_INVALID_CONTEXT;
        char *copy = strdup(own.c_str());
        if (copy == nullptr)
            return APP_ERROR_OUT_OF_MEMORY;
        *id = copy;
        return APP_ERROR_NONE;
    } catch (...) {
        return APP_ERROR_OUT_OF_MEMORY;
    }
}

int app_info_create(const char *app_id, app_info_h *app_info) {
    if (app_id == nullptr || app_info == nullptr)
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    try {
        std::unique_ptr<app_info_s> found = host::findApplication(app_id);
        if (found == nullptr)
            return APP_MANAGER_ERROR_NO_SUCH_APP;
        *app_info = found.release();
        return APP_MANAGER_ERROR_NONE;
    } catch (...) {
        return APP_MANAGER_ERROR_OUT_OF_MEMORY;
    }
}

int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback, void *user_data) {
    if (app_info == nullptr || callback == nullptr)
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    // The callback may destroy the handle.
    const std::shared_ptr<const host::Manifest> manifest = app_info->manifest;
    for (const auto &[key, value] : app_info->application->metadata) {
        if (!callback(key.c_str(), value.c_str(), user_data))
            break;
    }
    return APP_MANAGER_ERROR_NONE;
}

int app_info_destroy(app_info_h app_info) {
    if (app_info == nullptr)
        return APP_MANAGER_ERROR_INVALID_PARAMETER;
    delete app_info;
    return APP_MANAGER_ERROR_NONE;
}

void host_sim_set_manifest(const char *xml) {
    try {
        host::install(xml);
    } catch (...) {
        // The manifest stays as it was.
        dlog_print(DLOG_ERROR, host::LOG_TAG, "No memory for the manifest");
    }
}
