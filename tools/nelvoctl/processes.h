// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace nelvoctl {

// A process of this user that uses the library, as /proc shows it.
struct AppProcess {
    pid_t pid = 0;
    std::string program;    // path
    std::string manifest;   // path; the file need not be there
    std::string actions;    // path of its catalogue of actions; the file need not be there
    std::string runtimeDir; // path
    char state = '?';       // as in /proc/PID/stat

    // Whether its runtime directory is ours.
    bool isHere() const;
    // The process's state as a text, such as "process 12 is stopped".
    const char *activity() const;
};

// The processes with this application id; those that use this process's runtime directory come
// first.
std::vector<AppProcess> findProcesses(const std::string &appId);

// What a manifest says about an application.
struct Manifest {
    bool isRead = false;    // the manifest exists and names the application
    std::string sdkVersion; // empty: none is given

    // Whether nelvo_initialize() succeeds with this manifest. An application without a manifest is
    // admitted.
    bool isAdmitted() const;
    std::string found() const; // as in "FILE gives no SDK version"
};
Manifest readManifest(const std::string &path, const std::string &appId);

} // namespace nelvoctl
