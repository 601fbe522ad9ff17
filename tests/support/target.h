// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <nelvo/testkit.h>

#include "raw_session.h"

namespace nelvo::testkit {

// A folder of our own for sockets, beside the program; it goes with the object. The process enters
// the program's folder: from there the path is short enough for a socket.
class SocketFolder {
public:
    SocketFolder();
    SocketFolder(const SocketFolder &) = delete;
    SocketFolder &operator=(const SocketFolder &) = delete;
    ~SocketFolder();

    const std::string &path() const { return _path; }

private:
    std::string _path;
};

// An application that serves "message" as demo.hello, as its peers see it.
class Target {
public:
    explicit Target(const std::string &folder);
    virtual ~Target() = default;
    Target(const Target &) = delete;
    Target &operator=(const Target &) = delete;

    // Lets the application run until something is so. False: that has not come about.
    virtual bool until(const std::function<bool()> &condition) = 0;
    virtual void pass(double) {} // time, where it can be moved by hand
    int descriptors() const;
    long memory() const; // kilobytes, used or only reserved

    const std::string path; // of its socket

protected:
    std::string _process = "self"; // below /proc
};

// In this process, with real sockets and a virtual clock. Serves "greet" as the example does, "flood",
// which answers with a mebibyte, and the state.
class LocalTarget final : public Target {
public:
    explicit LocalTarget(const std::string &folder);
    ~LocalTarget() override;

    bool until(const std::function<bool()> &condition) override;
    void pass(double seconds) override;

    // What a client says that registers its response callback and sends these requests.
    RawSession record(const std::vector<std::string> &actionIds);
    Simulation &device() { return *_device; }

    int calls = 0; // of its callbacks

private:
    std::optional<Simulation> _device; // the sockets are there before the clock stands still
};

// The example application `hello`, in a process of its own. What it logs from the level given up must
// always be whole lines.
class ExampleTarget final : public Target {
public:
    ExampleTarget(const std::string &folder, const std::string &program, const char *logLevel,
                  unsigned descriptorLimit);
    ~ExampleTarget() override;

    bool until(const std::function<bool()> &condition) override;

    std::string log() const;
    bool isAlive() const;

private:
    const int _log;
    pid_t _pid;
};

} // namespace nelvo::testkit
