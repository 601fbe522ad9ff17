// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "play.h"

namespace nelvo::testkit {

// One point of a sweep: a script, and the fault that is armed where the bar stands in it.
struct Point {
    std::string script;
    Play::Check check = Play::Check::INVARIANTS;
    std::function<void()> arm = [] {};
    std::function<bool()> disarm = [] { return true; }; // whether the fault came to pass
};

// As the exit code of a child: the sanitizers end a process with other codes.
enum class Outcome : int { HELD = 0, NOT_REACHED = 77, BROKEN = 78 };

constexpr std::chrono::milliseconds HANG(20'000);

// What the work says in a process of its own; BROKEN when that dies, hangs or leaks, which is said
// on stderr.
Outcome inChild(const std::string &name, const std::function<Outcome()> &work,
                std::chrono::milliseconds limit = HANG);

// Plays the point in a process of its own. Afterwards a healthy application must be possible,
// nothing may be left of what the library held, and each line that it logged must match one of the
// patterns ("E receiveRequest: text", with wildcards). Says on stderr what does not hold. The first
// point of a program has no fault: its blocks of memory are what the others may keep.
Outcome playPoint(const Point &point, const std::vector<std::string> &logPatterns,
                  std::chrono::milliseconds limit = HANG);

// The scenarios in a folder, and each deed of an application inside each of its callbacks.
std::vector<std::string> readScripts(const std::string &folder);

// The lines of a file but for empty ones and those that begin with "#".
std::vector<std::string> readTable(const std::string &path);

} // namespace nelvo::testkit
