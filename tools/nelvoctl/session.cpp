// SPDX-License-Identifier: Apache-2.0
#include "session.h"

#include <Ecore.h>

namespace nelvoctl {

namespace {

// Starts a step of the link and runs the main loop until the step is done. Throws Failure.
template <typename Step>
void await(Step start) {
    bool isDone = false;
    std::optional<Failure> failed;
    start([&](const Failure *failure) {
        isDone = true;
        if (failure)
            failed = *failure;
        ecore_main_loop_quit();
    });
    while (!isDone)
        ecore_main_loop_begin();
    if (failed)
        throw *failed;
}

} // namespace

bool runLoopFor(double seconds, const std::function<bool()> &until) {
    bool isOver = false;
    Timer timer;
    const auto end = [&] {
        isOver = true;
        ecore_main_loop_quit();
    };
    if (!timer.start(seconds, end))
        throw Failure(Cause::INTERNAL, "a timer could not be created");
    while (!isOver && !(until && until()))
        ecore_main_loop_begin();
    return until && until();
}

void Session::connect() {
    await([this](const Link::Done &done) { _link.connect(done); });
}

void Session::registerCallback() {
    await([this](const Link::Done &done) { _link.registerCallback(done); });
}

nelvo::client::Response Session::ask(const std::string &actionId,
                                     const std::optional<std::string> &params) {
    await([&](const Link::Done &done) { _link.ask(actionId, params, done); });
    return _link.response();
}

nelvo::client::Response exchange(const Target &target, const std::string &actionId,
                                 const std::optional<std::string> &params) {
    Session session(target);
    session.connect();
    session.registerCallback();
    return session.ask(actionId, params);
}

} // namespace nelvoctl
