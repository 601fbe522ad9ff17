// SPDX-License-Identifier: Apache-2.0
#include "loop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>

#include <sys/epoll.h>

#include <dlog.h>

#include <host/sim.h>

#include "log_tag.h"

namespace host {

namespace {

constexpr std::int64_t NANOSECONDS = 1'000'000'000;
constexpr std::int64_t FOREVER = std::int64_t{1} << 61; // 73 years: two of them can be added
constexpr std::int64_t MIN_RENEWAL = 1'000;
constexpr int EVENTS_PER_ROUND = 64;

std::int64_t toNanoseconds(double seconds) {
    const double limit = static_cast<double>(FOREVER / NANOSECONDS);
    return std::llround(std::clamp(seconds, 0.0, limit) * static_cast<double>(NANOSECONDS));
}

double toSeconds(std::int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / static_cast<double>(NANOSECONDS);
}

std::uint32_t toEpoll(unsigned flags) {
    return ((flags & ECORE_FD_READ) ? std::uint32_t{EPOLLIN} : 0) |
           ((flags & ECORE_FD_WRITE) ? std::uint32_t{EPOLLOUT} : 0);
}

// A failed descriptor counts as ready for whatever it is watched for: only a read or write shows
// it.
unsigned fromEpoll(std::uint32_t events, unsigned watched) {
    if (events & (EPOLLERR | EPOLLHUP)) {
        return watched | ECORE_FD_ERROR;
    }
    return ((events & EPOLLIN) ? unsigned{ECORE_FD_READ} : 0U) |
           ((events & EPOLLOUT) ? unsigned{ECORE_FD_WRITE} : 0U);
}

} // namespace

Loop &Loop::instance() {
    static Loop &loop = *new Loop;
    return loop;
}

std::int64_t Loop::now() const {
    if (_simulated) {
        return _virtualNow;
    }
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * NANOSECONDS + time.tv_nsec;
}

int Loop::start() {
    return openPoll() ? ++_users : _users;
}

int Loop::stop() {
    if (_users == 0 || --_users > 0) {
        return _users;
    }
    for (std::size_t i = 0; i < _timers.slotCount(); ++i) {
        deleteTimer(_timers.handleAt(i));
    }
    for (std::size_t i = 0; i < _handlers.slotCount(); ++i) {
        deleteHandler(_handlers.handleAt(i));
    }
    _poll.reset();
    _quit = false;
    return 0;
}

void Loop::run() {
    while (!_quit && openPoll() && (runOnce(!_simulated) || !_simulated || jump(FOREVER))) {
    }
    _quit = false;
}

bool Loop::runOnce(bool wait) {
    const bool buffered = _bufferedHandlers > 0 && deliverBuffered();
    const bool ready = deliverReady(wait && !buffered ? waitMilliseconds() : 0);
    const bool due = deliverTimers();
    return buffered || ready || due;
}

void Loop::advance(std::int64_t nanoseconds) {
    const std::int64_t target = std::min(_virtualNow + nanoseconds, FOREVER);
    do {
        while (runOnce(false)) {
        }
    } while (jump(target));
    _virtualNow = std::max(_virtualNow, target); // a callback may have moved it further
}

// To the next deadline. Not for what is due already: that a round would have delivered.
bool Loop::jump(std::int64_t latest) {
    if (_due.empty() || _due.begin()->deadline > latest) {
        return false;
    }
    _virtualNow = std::max(_virtualNow, _due.begin()->deadline);
    return true;
}

void *Loop::addTimer(double seconds, Ecore_Task_Cb func, void *data, bool internal) {
    if (!func || std::isnan(seconds)) {
        return nullptr;
    }
    Timer timer;
    timer.interval = toNanoseconds(seconds);
    timer.deadline = now() + timer.interval;
    timer.sequence = ++_sequence;
    timer.func = func;
    timer.data = data;
    timer.round = _round;
    timer.internal = internal;
    void *const handle = _timers.add(timer);
    try {
        _due.insert(Due{timer.deadline, timer.sequence, handle});
    } catch (...) {
        _timers.remove(handle);
        throw;
    }
    _countedTimers += internal ? 0 : 1;
    return handle;
}

void *Loop::deleteTimer(void *handle) {
    if (!_timers.find(handle)) {
        return nullptr;
    }
    const Timer timer = _timers.remove(handle);
    _due.erase(Due{timer.deadline, timer.sequence, handle}); // not in it while its callback runs
    _countedTimers -= timer.internal ? 0 : 1;
    return timer.data;
}

// Rounded up: a wait that ends early would only be followed by another one.
int Loop::waitMilliseconds() const {
    if (_due.empty()) {
        return -1;
    }
    constexpr std::int64_t MILLISECOND = 1'000'000;
    const std::int64_t left = std::max<std::int64_t>(_due.begin()->deadline - now(), 0);
    return static_cast<int>(
        std::min<std::int64_t>((left + MILLISECOND - 1) / MILLISECOND, INT_MAX));
}

// Walks by deadline, from the one before: the callbacks may change the set in any way. What they
// add or renew waits for the next round, so the walk ends.
bool Loop::deliverTimers() {
    if (_due.empty()) {
        return false;
    }
    const std::uint64_t round = ++_round;
    const std::int64_t moment = now();
    bool delivered = false;
    auto due = _due.begin();
    while (due != _due.end() && due->deadline <= moment) {
        const Due current = *due;
        if (_timers.find(current.timer)->round < round) {
            fire(due);
            delivered = true;
        }
        due = _due.upper_bound(current);
    }
    return delivered;
}

void Loop::fire(std::set<Due>::iterator due) {
    void *const handle = due->timer;
    auto node = _due.extract(due);
    const Timer timer = *_timers.find(handle);
    const bool again = timer.func(timer.data) != ECORE_CALLBACK_CANCEL;
    Timer *const left = _timers.find(handle);
    if (left && again) {
        renew(*left, std::move(node));
    } else if (left) {
        deleteTimer(handle);
    }
}

void Loop::renew(Timer &timer, std::set<Due>::node_type node) {
    const std::int64_t interval = std::max(timer.interval, MIN_RENEWAL);
    timer.deadline += interval;
    if (timer.deadline < now()) {
        timer.deadline = now() + interval;
    }
    timer.round = _round;
    node.value().deadline = timer.deadline;
    _due.insert(std::move(node));
}

bool Loop::openPoll() {
    if (!_poll) {
        _poll.reset(epoll_create1(EPOLL_CLOEXEC));
    }
    if (!_poll) {
        dlog_print(DLOG_ERROR, LOG_TAG, "the main loop cannot start: %s", std::strerror(errno));
    }
    return static_cast<bool>(_poll);
}

void *Loop::addHandler(int fd, unsigned flags, Ecore_Fd_Cb func, void *data, Ecore_Fd_Cb bufFunc,
                       void *bufData) {
    if (!func || !openPoll()) {
        return nullptr;
    }
    void *const handle = _handlers.add(Handler{fd, flags, 0, func, data, bufFunc, bufData});
    epoll_event event{};
    event.events = toEpoll(flags);
    event.data.ptr = handle;
    if (epoll_ctl(_poll.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
        _handlers.remove(handle);
        return nullptr;
    }
    _bufferedHandlers += bufFunc ? 1 : 0;
    return handle;
}

void *Loop::deleteHandler(void *handle) {
    if (!_handlers.find(handle)) {
        return nullptr;
    }
    const Handler handler = _handlers.remove(handle);
    epoll_ctl(_poll.get(), EPOLL_CTL_DEL, handler.fd, nullptr);
    _bufferedHandlers -= handler.bufFunc ? 1 : 0;
    return handler.data;
}

bool Loop::isActive(void *handle, unsigned flags) {
    const Handler *const handler = _handlers.find(handle);
    return handler && (handler->active & flags) != 0;
}

void Loop::setFlags(void *handle, unsigned flags) {
    Handler *const handler = _handlers.find(handle);
    if (!handler || handler->flags == flags) {
        return;
    }
    handler->flags = flags;
    epoll_event event{};
    event.events = toEpoll(flags);
    event.data.ptr = handle;
    epoll_ctl(_poll.get(), EPOLL_CTL_MOD, handler->fd, &event);
}

bool Loop::deliverBuffered() {
    bool delivered = false;
    for (std::size_t i = 0; i < _handlers.slotCount(); ++i) {
        void *const handle = _handlers.handleAt(i);
        const Handler *const handler = _handlers.find(handle);
        if (!handler || !handler->bufFunc) {
            continue;
        }
        if (handler->bufFunc(handler->bufData, static_cast<Ecore_Fd_Handler *>(handle))) {
            callHandler(handle, ECORE_FD_READ);
            delivered = true;
        }
    }
    return delivered;
}

bool Loop::deliverReady(int timeout) {
    if (!openPoll()) {
        return false;
    }
    epoll_event events[EVENTS_PER_ROUND];
    const int count = epoll_wait(_poll.get(), events, EVENTS_PER_ROUND, timeout);
    // A nested round has delivered what is left here, and perhaps read it: the next one asks again.
    const std::uint64_t poll = ++_polls;
    for (int i = 0; i < count && poll == _polls; ++i) {
        if (const Handler *const handler = _handlers.find(events[i].data.ptr)) {
            callHandler(events[i].data.ptr, fromEpoll(events[i].events, handler->flags));
        }
    }
    return count > 0;
}

void Loop::callHandler(void *handle, unsigned active) {
    Handler *const handler = _handlers.find(handle);
    if (!handler) {
        return; // its own bufFunc has deleted it
    }
    const unsigned outer = handler->active; // of the call that runs this round from inside
    handler->active = active;
    const Ecore_Fd_Cb func = handler->func;
    const Eina_Bool answer = func(handler->data, static_cast<Ecore_Fd_Handler *>(handle));
    if (answer == ECORE_CALLBACK_CANCEL) {
        deleteHandler(handle);
    } else if (Handler *const left = _handlers.find(handle)) {
        left->active = outer;
    }
}

} // namespace host

using host::Loop;

int ecore_init(void) {
    return Loop::instance().start();
}

int ecore_shutdown(void) {
    return Loop::instance().stop();
}

void ecore_main_loop_begin(void) {
    Loop::instance().run();
}

void ecore_main_loop_quit(void) {
    Loop::instance().quit();
}

void ecore_main_loop_iterate(void) {
    Loop::instance().runOnce(false);
}

double ecore_time_get(void) {
    return host::toSeconds(Loop::instance().now());
}

Ecore_Timer *ecore_timer_add(double in, Ecore_Task_Cb func, const void *data) {
    try {
        return static_cast<Ecore_Timer *>(
            Loop::instance().addTimer(in, func, const_cast<void *>(data), false));
    } catch (...) {
        return nullptr;
    }
}

void *ecore_timer_del(Ecore_Timer *timer) {
    return Loop::instance().deleteTimer(timer);
}

Ecore_Fd_Handler *ecore_main_fd_handler_add(int fd, Ecore_Fd_Handler_Flags flags, Ecore_Fd_Cb func,
                                            const void *data, Ecore_Fd_Cb buf_func,
                                            const void *buf_data) {
    try {
        return static_cast<Ecore_Fd_Handler *>(Loop::instance().addHandler(
            fd, flags, func, const_cast<void *>(data), buf_func, const_cast<void *>(buf_data)));
    } catch (...) {
        return nullptr;
    }
}

void *ecore_main_fd_handler_del(Ecore_Fd_Handler *fd_handler) {
    return Loop::instance().deleteHandler(fd_handler);
}

Eina_Bool ecore_main_fd_handler_active_get(Ecore_Fd_Handler *fd_handler,
                                           Ecore_Fd_Handler_Flags flags) {
    return Loop::instance().isActive(fd_handler, flags) ? EINA_TRUE : EINA_FALSE;
}

void ecore_main_fd_handler_active_set(Ecore_Fd_Handler *fd_handler, Ecore_Fd_Handler_Flags flags) {
    Loop::instance().setFlags(fd_handler, flags);
}

void host_sim_start(void) {
    Loop::instance().simulate();
}

void host_sim_advance(double seconds) {
    if (!Loop::instance().isSimulated()) {
        dlog_print(DLOG_ERROR, host::LOG_TAG,
                   "the clock cannot be moved: call host_sim_start() first");
        return;
    }
    Loop::instance().advance(std::isnan(seconds) ? 0 : host::toNanoseconds(seconds));
}

double host_sim_now(void) {
    return host::toSeconds(Loop::instance().now());
}

int host_sim_timer_count(void) {
    return Loop::instance().countTimers();
}
