// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "application.h"

namespace nelvoctl {

// The applications that a server drives: those that were named, or else all that can be reached.
//
// Applications that come are noticed by inotify, as each creates a socket in the runtime directory;
// those that go, by the end of a connection.
class Applications {
public:
    struct Settings {
        std::vector<std::string> named;                // empty: all
        std::map<std::string, std::string> catalogues; // files by application id
        Target target;                                 // its application id does not matter
    };

    // Changed is called when an application or a catalogue has come, gone or changed. Warn gets a
    // sentence for the person who runs the server. Both are called from the main loop.
    //
    // Throws Failure if a catalogue or the runtime directory cannot be used.
    Applications(Settings settings, std::function<void()> changed,
                 std::function<void(const std::string &)> warn);
    Applications(const Applications &) = delete;
    Applications &operator=(const Applications &) = delete;
    ~Applications();

    bool isSingle() const { return _settings.named.size() == 1; }
    bool areNamed() const { return !_settings.named.empty(); }
    // Sorted by id if none was named, else in the order in which they were named. One that has gone
    // stays if it declared actions.
    const std::vector<std::unique_ptr<Application>> &all() const { return _all; }
    // Whether its actions are offered: it runs, or its catalogue was given.
    bool isOffered(const Application &application) const {
        return application.isPresent() || _settings.catalogues.count(application.id()) != 0;
    }
    // Null: not driven by this server.
    Application *find(const std::string &appId) const;

private:
    // An application creates its socket, and listens a moment later.
    static constexpr int LOOKS = 10;

    void add(const std::string &appId);
    void watchDirectory();
    static Eina_Bool directoryChangedCb(void *self, Ecore_Fd_Handler *);
    void lookAgain(double seconds);
    bool look();
    bool look(Application &application);
    bool loadCatalogue(Application &application);

    const Settings _settings;
    const std::function<void()> _changed;
    const std::function<void(const std::string &)> _warn;
    std::vector<std::unique_ptr<Application>> _all;
    int _inotify = -1;
    Ecore_Fd_Handler *_handler = nullptr; // null: the directory is not watched
    Timer _timer;
    int _looks = LOOKS; // still to come, for sockets that exist and do not accept connections yet
};

} // namespace nelvoctl
