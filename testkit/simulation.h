// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

#include <dlog.h>

#include "testkit_export.h"

namespace nelvo::testkit {

// One entry of the log, taken apart: of "v1.0-beta.1.4 :  12 receiveRequest(): text" the function
// is "receiveRequest" and the message "text"; the stub's lines likewise. Other lines have no
// function.
struct TESTKIT_API LogLine {
    log_priority priority;
    std::string tag;
    std::string function;
    std::string message;
    std::string text; // as it was logged

    std::string summary() const; // "E receiveRequest: message"
};

// A device for one application, with a clock that is moved by hand and no allow list: what the
// process does from here on happens there. One per process, to be created before anything else of
// the platform is used.
class TESTKIT_API Simulation {
public:
    // The application gets this id and a manifest that admits it.
    explicit Simulation(const std::string &appId = "demo.app");
    ~Simulation();
    Simulation(const Simulation &) = delete;
    Simulation &operator=(const Simulation &) = delete;

    // Replaces the manifest; both count from the first call of the library on.
    void setManifest(const std::string &xml);
    void setSdkVersion(const std::string &version);

    // What the allow list file holds from now on; without the second it is not there.
    void setAllowList(const std::string &content);
    void removeAllowList();

    // Delivers every event and timer of the next seconds; 0 those that are due now.
    void advance(double seconds = 0);

    // Every line so far, in order.
    const std::vector<LogLine> &log() const;
    void clearLog();
    int countLog(log_priority priority, const std::string &function,
                 const std::string &message) const;

    // The lines of the library, summed up, from the given level up.
    std::vector<std::string> logTexts(log_priority atLeast = DLOG_DEBUG) const;

    // Writes down what else happens, among the log lines. The transcript is both, in their order:
    // the lines of the library and of its stub summed up, with * for each address.
    void note(const std::string &event);
    std::vector<std::string> transcript() const;

private:
    std::string _appId;
};

} // namespace nelvo::testkit
