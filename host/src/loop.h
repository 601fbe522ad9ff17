// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include <Ecore.h>

#include "handles.h"
#include "unique_fd.h"

namespace host {

// The process's main loop: what stands behind Ecore.h and the clock of host/sim.h.
//
// Each round gives the ready descriptors one turn and then each due timer one, so neither can
// starve the other. Time is counted in whole nanoseconds: sums of intervals stay exact, and a
// virtual clock meets every deadline to the point.
//
// Callbacks may do anything, a nested round included. Therefore nothing keeps a reference into the
// tables while a callback runs; what is left afterwards is looked up again by its handle.
class Loop {
public:
    // Created on first use and never destroyed: applications release ports from static destructors.
    static Loop &instance();

    bool isSimulated() const { return _simulated; }
    void simulate() { _simulated = true; }
    std::int64_t now() const;

    int start();
    int stop();
    void run();
    void quit() { _quit = true; }

    // One round. Waits for the first event only when asked to. False: there was nothing to deliver.
    bool runOnce(bool wait);
    // Moves the virtual clock.
    void advance(std::int64_t nanoseconds);

    // Null when memory ran out, or the arguments are wrong. An internal timer is one of the
    // platform's own, which countTimers() leaves out.
    void *addTimer(double seconds, Ecore_Task_Cb func, void *data, bool internal);
    void *deleteTimer(void *timer);
    int countTimers() const { return _countedTimers; }

    // Null as above, and when the system cannot watch the descriptor.
    void *addHandler(int fd, unsigned flags, Ecore_Fd_Cb func, void *data, Ecore_Fd_Cb bufFunc,
                     void *bufData);
    void *deleteHandler(void *handler);
    // What the handler is being called for; 0 outside its callback.
    unsigned active(void *handler);
    void setFlags(void *handler, unsigned flags);

private:
    Loop();

    struct Timer {
        std::int64_t deadline = 0;
        std::int64_t interval = 0;
        Ecore_Task_Cb func = nullptr;
        void *data = nullptr;
        bool internal = false;
        bool isCalled = false;   // not in _due then
        std::uint64_t round = 0; // in which it was added: not due in this one
    };
    // A deadline and the timer's handle: a later one is greater, so equal deadlines keep the order
    // of creation, and a timer that a callback adds comes after all that are due.
    using Due = std::pair<std::int64_t, void *>;
    struct Handler {
        int fd = -1;
        unsigned flags = 0;
        unsigned active = 0;
        Ecore_Fd_Cb func = nullptr;
        void *data = nullptr;
        Ecore_Fd_Cb bufFunc = nullptr;
        void *bufData = nullptr;
    };

    bool openPoll();
    bool jump(std::int64_t latest);
    int waitMilliseconds();
    bool deliverBuffered();
    bool deliverReady(int timeout);
    void callHandler(void *handler, std::uint32_t events);
    bool control(int operation, void *handler);
    void *forget(void *handler);
    bool deliverTimers();
    void fire();
    void push(Due due);
    void pop();
    bool hasDue();
    void dropDeleted();

    bool _simulated = false;
    std::int64_t _virtualNow = 0;
    int _users = 0;
    bool _quit = false;

    Handles<Timer> _timers;
    // A heap, the first deadline in front, with room for those being called; what has been deleted
    // is left in it until that is half of it or comes to the front.
    std::vector<Due> _due;
    std::size_t _called = 0;
    std::size_t _deleted = 0;
    std::uint64_t _round = 0;
    int _countedTimers = 0;

    UniqueFd _poll;
    Handles<Handler> _handlers;
    std::vector<void *> _buffered; // the handlers with a bufFunc, in order
    std::uint64_t _polls = 0;
};

} // namespace host
