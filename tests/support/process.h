// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace nelvo::testkit {

constexpr std::chrono::seconds PATIENCE(20); // for what takes milliseconds on an idle machine

// A child process and what it writes; killed and reaped when it goes out of scope.
class Process {
public:
    Process(const std::string &program, const std::vector<std::string> &arguments);
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;
    ~Process();

    pid_t pid() const { return _pid; }
    void signal(int number) const;
    const std::string &out() const { return _texts[0]; }
    const std::string &err() const { return _texts[1]; }

    // The exit code; -1 when a signal ended it or it did not end in PATIENCE.
    int wait();
    // False when the text has not been written to stderr in PATIENCE.
    bool waitForErr(const std::string &text);

private:
    bool readUntil(const std::function<bool()> &condition);
    void readFrom(std::size_t i);
    void closeFd(std::size_t i);

    pid_t _pid = -1;
    int _fds[2] = {-1, -1};
    std::string _texts[2];
};

} // namespace nelvo::testkit
