// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <set>

#include <Ecore.h>

#include "slot_table.h"
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

    // An internal timer is one of the platform's own; countTimers() leaves it out.
    void *addTimer(double seconds, Ecore_Task_Cb func, void *data, bool internal);
    void *deleteTimer(void *timer);
    int countTimers() const { return _countedTimers; }

    void *addHandler(int fd, unsigned flags, Ecore_Fd_Cb func, void *data, Ecore_Fd_Cb bufFunc,
                     void *bufData);
    void *deleteHandler(void *handler);
    bool isActive(void *handler, unsigned flags);
    void setFlags(void *handler, unsigned flags);

private:
    struct Timer {
        std::int64_t deadline = 0;
        std::uint64_t sequence = 0; // order of creation, decides between equal deadlines
        std::int64_t interval = 0;
        Ecore_Task_Cb func = nullptr;
        void *data = nullptr;
        std::uint64_t round = 0; // in which it was added or renewed: not due again in this one
        bool internal = false;
    };
    struct Due {
        std::int64_t deadline;
        std::uint64_t sequence;
        void *timer;
        bool operator<(const Due &other) const {
            return deadline != other.deadline ? deadline < other.deadline
                                              : sequence < other.sequence;
        }
    };
    struct Handler {
        int fd = -1;
        unsigned flags = 0;
        unsigned active = 0; // what it is being called for; 0 outside its callback
        Ecore_Fd_Cb func = nullptr;
        void *data = nullptr;
        Ecore_Fd_Cb bufFunc = nullptr;
        void *bufData = nullptr;
    };

    bool openPoll();
    bool drain();
    bool jump(std::int64_t latest);
    int waitMilliseconds() const;
    bool deliverBuffered();
    bool deliverReady(int timeout);
    void callHandler(void *handler, unsigned active);
    bool deliverTimers();
    void fire(std::set<Due>::iterator due);
    void renew(Timer &timer, std::set<Due>::node_type node);

    bool _simulated = false;
    std::int64_t _virtualNow = 0;
    int _users = 0;
    bool _quit = false;

    SlotTable<Timer, 1> _timers;
    std::set<Due> _due; // all timers but those whose callback is running
    std::uint64_t _sequence = 0;
    std::uint64_t _round = 0;
    int _countedTimers = 0;

    UniqueFd _poll;
    SlotTable<Handler, 2> _handlers;
    int _bufferedHandlers = 0;
    std::uint64_t _polls = 0;
};

} // namespace host
