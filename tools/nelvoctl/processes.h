// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace nelvoctl {

// A process of ours that uses the library, as the system shows it.
struct AppProcess {
    pid_t pid = 0;
    std::string program;    // path
    std::string manifest;   // path; the file need not be there
    std::string runtimeDir; // path
    char state = '?';       // as in /proc/PID/stat

    // Whether its runtime directory is ours.
    bool isHere() const;
    // What it is doing, as in "process 12 is stopped".
    const char *activity() const;
};

// The processes whose application id this is, those in our runtime directory first.
std::vector<AppProcess> findProcesses(const std::string &appId);

// What a manifest says of an application.
struct Manifest {
    bool isRead = false;    // there is one, and it names the application
    std::string sdkVersion; // empty: none is given

    // Whether the library initialises itself under it. An application without a manifest is let
    // through.
    bool isAdmitted() const;
    std::string found() const; // as in "FILE gives no SDK version"
};
Manifest readManifest(const std::string &path, const std::string &appId);

} // namespace nelvoctl
