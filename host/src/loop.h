// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include <pthread.h>

#include <Ecore.h>

#include "handles.h"
#include "unique_fd.h"

namespace host {

// The process's main loop, which implements Ecore.h and the clock of host/sim.h.
//
// Each round calls the handlers of all ready descriptors once and then all due timers once, so that
// neither kind can starve the other. Time is counted in whole nanoseconds: sums of intervals are
// exact, and the virtual clock stops at every deadline exactly.
//
// Callbacks may call any function, and may run the loop. So after a callback, timers and handlers
// are looked up again by their handles.
class Loop {
public:
    // Created on first use and never destroyed: applications release ports from static destructors.
    static Loop &instance() { return only ? *only : create(); }

    bool isSimulated() const { return _simulated; }
    void simulate() { _simulated = true; }
    std::int64_t now() const;

    int start();
    int stop();
    // Whether the named function is called on the loop's thread, which is that of the first
    // ecore_init(). Logs the mistake if not; the caller then refuses, as the platform of a device does.
    static bool isOwnThread(const char *function) {
        return pthread_equal(pthread_self(), thread) || refuseThread(function);
    }
    // Logs, once, that the named function is called before ecore_init().
    void expectStarted(const char *function) {
        if (_users == 0)
            reportEarly(function);
    }
    void run();
    void quit() { _quit = true; }

    // Runs one round, and waits for an event first if asked to. Returns false if nothing was
    // delivered.
    bool runOnce(bool wait);
    // The same for a simulated client that waits for a reply of the application in this process.
    bool runOnceForClient();
    // Moves the virtual clock and delivers what becomes due.
    void advance(std::int64_t nanoseconds);
    // Whether a connection's frames may be delivered inside that connection's own event. Only while a
    // test moves the clock or a simulated client waits: a platform may do so, and the library must bear
    // it. A loop that the application runs inside a callback must not, or a client that sends many
    // requests could exhaust the stack.
    bool mayNest() const { return _mayNest; }

    // Returns null if memory ran out or an argument is not valid. countTimers() does not count
    // internal timers, which are those of the platform itself.
    void *addTimer(double seconds, Ecore_Task_Cb func, void *data, bool internal);
    void *deleteTimer(void *timer);
    int countTimers() const { return _countedTimers; }

    // Returns null for the same reasons, and if the system cannot watch the descriptor.
    // If the last ecore_shutdown() deletes the handler, gone(data) is called.
    void *addHandler(int fd, unsigned flags, Ecore_Fd_Cb func, void *data, Ecore_Fd_Cb bufFunc,
                     void *bufData, void (*gone)(void *data) = nullptr);
    void *deleteHandler(void *handler);
    // The events that the handler is being called for; 0 outside its callback.
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
        bool isCalled = false;   // and therefore not in _due
        std::uint64_t round = 0; // in which the timer was added; due from the next one
    };
    // A deadline and the timer's handle. Handles grow, so timers with equal deadlines are called in
    // the order of their creation.
    using Due = std::pair<std::int64_t, void *>;
    struct Handler {
        int fd = -1;
        unsigned flags = 0;
        unsigned active = 0;
        Ecore_Fd_Cb func = nullptr;
        void *data = nullptr;
        Ecore_Fd_Cb bufFunc = nullptr;
        void *bufData = nullptr;
        void (*gone)(void *data) = nullptr;
    };

    static inline Loop *only = nullptr;
    static inline pthread_t thread = pthread_self();

    static Loop &create();
    void reportEarly(const char *function);
    static bool refuseThread(const char *function);
    bool runRound(bool wait);
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
    int _runs = 0; // calls of run() in progress
    bool _isLateLogged = false;
    bool _quit = false;
    bool _mayNest = false;

    Handles<Timer> _timers;
    // A heap with the earliest deadline in front, and with capacity for the timers that are being
    // called. Deleted timers stay in it until they are in front or make up half of it.
    std::vector<Due> _due;
    std::size_t _called = 0;
    std::size_t _deleted = 0;
    std::uint64_t _round = 0;
    int _countedTimers = 0;

    ParentsFd _poll;
    Handles<Handler> _handlers;
    std::vector<void *> _buffered; // the handlers with a bufFunc, in ascending order
    std::uint64_t _polls = 0;
};

} // namespace host
