// SPDX-License-Identifier: Apache-2.0
#include "applications.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "runtime_dir.h"

namespace nelvoctl {

namespace {

constexpr double LOOK_SECONDS = 0.1;
constexpr double STUCK_SECONDS = 5;

} // namespace

Applications::Applications(Settings settings, std::function<void()> changed,
                           std::function<void(const std::string &)> warn)
    : _settings(std::move(settings)), _changed(std::move(changed)), _warn(std::move(warn)) {
    for (const std::string &appId : _settings.named)
        add(appId);
    for (const auto &[appId, file] : _settings.catalogues) {
        Application *const application = find(appId);
        if (!application)
            throw Failure(Cause::USAGE, "--catalogue is for " + appId + ", which is not named");
        application->catalogue = readCatalogue(file);
        if (const auto &problems = application->catalogue.problems; !problems.empty())
            throw Failure(Cause::CATALOGUE, describe(file, problems.front()));
    }
    watchDirectory();
    look();
}

Applications::~Applications() {
    if (_handler)
        ecore_main_fd_handler_del(_handler);
    if (_inotify >= 0)
        close(_inotify);
}

Application *Applications::find(const std::string &appId) const {
    for (const auto &application : _all)
        if (application->id() == appId)
            return application.get();
    return nullptr;
}

void Applications::add(const std::string &appId) {
    Target target = _settings.target;
    target.appId = appId;
    if (!find(appId))
        _all.push_back(std::make_unique<Application>(target));
}

// The platform would create the directory in the same way.
void Applications::watchDirectory() {
    const std::string dir = runtimeDir();
    mkdir(dir.c_str(), 0700);
    std::string fault = faultOf(dir);
    if (_inotify < 0)
        _inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fault.empty() &&
        inotify_add_watch(_inotify, dir.c_str(), IN_CREATE | IN_DELETE | IN_MOVE | IN_ONLYDIR) < 0)
        fault = std::strerror(errno);
    if (!fault.empty())
        throw Failure(Cause::RUNTIME_DIRECTORY, "the runtime directory " + dir + " " + fault);
    if (!_handler)
        _handler = ecore_main_fd_handler_add(_inotify, ECORE_FD_READ, directoryChangedCb, this,
                                             nullptr, nullptr);
}

Eina_Bool Applications::directoryChangedCb(void *data, Ecore_Fd_Handler *) {
    Applications &self = *static_cast<Applications *>(data);
    alignas(inotify_event) char events[4096];
    bool isGone = false;
    for (ssize_t size; (size = read(self._inotify, events, sizeof events)) > 0;)
        for (const char *at = events; at < events + size;) {
            const auto *event = reinterpret_cast<const inotify_event *>(at);
            isGone = isGone || (event->mask & IN_IGNORED) != 0;
            at += sizeof *event + event->len;
        }
    try {
        if (isGone)
            self.watchDirectory(); // which creates the directory again
    } catch (const Failure &failure) {
        self._warn(failure.message);
    }
    self._looks = LOOKS;
    self.lookAgain(0);
    return ECORE_CALLBACK_RENEW;
}

void Applications::lookAgain(double seconds) {
    _timer.start(seconds, [this] {
        if (look())
            _changed();
    });
}

// Returns whether anything has changed.
bool Applications::look() {
    const std::vector<std::string> listed = listedApps(runtimeDir());
    if (_settings.named.empty()) {
        for (const std::string &appId : listed)
            add(appId);
        std::sort(_all.begin(), _all.end(),
                  [](const auto &a, const auto &b) { return a->id() < b->id(); });
    }
    bool hasChanged = false, isIncomplete = false;
    for (const auto &application : _all) {
        hasChanged = look(*application) || hasChanged;
        isIncomplete =
            isIncomplete || (!application->isPresent() &&
                             std::binary_search(listed.begin(), listed.end(), application->id()));
    }
    if (_settings.named.empty()) {
        const auto isUnused = [](const auto &application) {
            return !application->isPresent() && !application->isBusy() &&
                   !application->isWatched() && application->catalogue.actions.empty();
        };
        _all.erase(std::remove_if(_all.begin(), _all.end(), isUnused), _all.end());
    }
    if (isIncomplete && _looks-- > 0)
        lookAgain(LOOK_SECONDS);
    return hasChanged;
}

bool Applications::look(Application &application) {
    const bool wasPresent = application.isPresent();
    const bool isNew = application.look([this](bool hasEnded) {
        if (hasEnded || !_timer.isRunning())
            lookAgain(hasEnded ? 0 : STUCK_SECONDS);
    });
    const bool hasChanged = isNew && loadCatalogue(application);
    return hasChanged || application.isPresent() != wasPresent;
}

// Returns whether the catalogue is another one than before.
bool Applications::loadCatalogue(Application &application) {
    if (_settings.catalogues.count(application.id()) != 0)
        return false;
    Catalogue loaded;
    const std::string file = findCatalogue(application.id());
    try {
        std::error_code error;
        if (!file.empty() && std::filesystem::exists(file, error))
            loaded = readCatalogue(file);
        for (const Problem &problem : loaded.problems)
            _warn("a catalogue is not used: " + describe(file, problem));
    } catch (const Failure &failure) {
        _warn(failure.message);
    }
    const bool hasChanged = loaded.document != application.catalogue.document;
    application.catalogue = std::move(loaded);
    return hasChanged;
}

} // namespace nelvoctl
