// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace nelvo::testkit {

constexpr std::chrono::seconds PATIENCE(20); // for what takes milliseconds on an idle machine

// A child process, which runs a program or a function; killed and reaped when the object goes out
// of scope, and killed when its parent dies.
class Child {
public:
    enum Output { CAPTURED, INHERITED };

    Child(const std::string &program, const std::vector<std::string> &arguments);
    // The function's result is the exit code, 1 after an exception. The child ends with exit(), so
    // that the leak sanitizer looks for leaks and a coverage build notes what was reached.
    explicit Child(const std::function<int()> &work, Output output = CAPTURED);
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child();

    pid_t pid() const { return _pid; }
    void signal(int number) const;
    // What the child has written so far.
    std::string out() const { return textOf(_out); }
    std::string err() const { return textOf(_err); }

    // Waits for the end. Returns the exit code, or -N if signal N ended the child; a child that
    // does not end in time is killed.
    int wait(std::chrono::milliseconds limit = PATIENCE);

private:
    void start(const std::function<int()> &work, Output output);
    bool ends(std::chrono::milliseconds within) const;
    static std::string textOf(int file);

    pid_t _pid = -1; // -1 once the child is reaped
    int _out, _err;  // files in memory
    int _status = 0;
};

// Runs work in a child process, for what the platform decides once per process, and returns what
// the child wrote to stderr; only "failed" when the child did not exit with 0.
template <typename Work>
std::string stderrOfChild(Work work) {
    Child child([&] { return work(), 0; });
    return child.wait() == 0 ? child.err() : "failed";
}

} // namespace nelvo::testkit
