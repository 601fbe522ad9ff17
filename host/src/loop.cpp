// SPDX-License-Identifier: Apache-2.0
#include "loop.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstring>
#include <ctime>
#include <functional>

#include <malloc.h>
#include <sys/epoll.h>

#include <dlog.h>

#include <host/sim.h>

#include "log_tag.h"
#include "misuse.h"

namespace host {

namespace {

constexpr std::int64_t NANOSECONDS = 1'000'000'000;
constexpr std::int64_t FOREVER = std::int64_t{1}
                                 << 61; // 73 years; the sum of two does not overflow
constexpr std::int64_t MIN_RENEWAL = 1'000;
constexpr int EVENTS_PER_ROUND = 64;

std::int64_t toNanoseconds(double seconds) {
    const double limit = static_cast<double>(FOREVER / NANOSECONDS);
    return static_cast<std::int64_t>(
        std::clamp(seconds, 0.0, limit) * static_cast<double>(NANOSECONDS) + 0.5);
}

double toSeconds(std::int64_t nanoseconds) {
    return static_cast<double>(nanoseconds) / static_cast<double>(NANOSECONDS);
}

// Without flags epoll still reports that the other side has closed the socket, but only once.
std::uint32_t toEpoll(unsigned flags) {
    if (flags == 0)
        return EPOLLET;
    return ((flags & ECORE_FD_READ) ? std::uint32_t{EPOLLIN} : 0) |
           ((flags & ECORE_FD_WRITE) ? std::uint32_t{EPOLLOUT} : 0);
}

// Sets a variable, and sets it back at the end of the scope.
class Restored {
public:
    Restored(bool &variable, bool value) : _variable(variable), _before(variable) {
        _variable = value;
    }
    Restored(const Restored &) = delete;
    Restored &operator=(const Restored &) = delete;
    ~Restored() { _variable = _before; }

private:
    bool &_variable;
    const bool _before;
};

// A failed descriptor is reported as ready for all that it is watched for, so that a read or write
// returns the error.
unsigned fromEpoll(std::uint32_t events, unsigned watched) {
    if (events & (EPOLLERR | EPOLLHUP))
        return watched | ECORE_FD_ERROR;
    return ((events & EPOLLIN) ? unsigned{ECORE_FD_READ} : 0U) |
           ((events & EPOLLOUT) ? unsigned{ECORE_FD_WRITE} : 0U);
}

} // namespace

Loop &Loop::create() {
    only = new Loop;
    return *only;
}

// Keeps freed memory in the process: with the C library's defaults, each large block would be
// returned to the system, and its pages would be mapped and cleared again for the next request.
Loop::Loop() {
    mallopt(M_MMAP_THRESHOLD, 8 << 20);
    mallopt(M_TRIM_THRESHOLD, 32 << 20);
}

std::int64_t Loop::now() const {
    if (_simulated)
        return _virtualNow;
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * NANOSECONDS + time.tv_nsec;
}

bool Loop::refuseThread(const char *function) {
    misuse("%s() is called on another thread than the main loop's and does nothing: pass the "
           "result to "
           "the main loop and call it there",
           function);
    return false;
}

void Loop::reportEarly(const char *function) {
    if (!_simulated && !std::exchange(_isLateLogged, true))
        dlog_print(
            DLOG_WARN, LOG_TAG,
            "%s() is called before ecore_init(); a device would refuse that: call ecore_init() "
            "first",
            function);
}

int Loop::start() {
    if (_users == 0)
        thread = pthread_self();
    else if (!isOwnThread("ecore_init"))
        return 0;
    return openPoll() ? ++_users : _users;
}

int Loop::stop() {
    if (_users == 0 || --_users > 0)
        return _users;
    const auto any = [](const auto &) { return true; };
    while (void *const timer = _timers.findIf(any))
        deleteTimer(timer);
    while (void *const handle = _handlers.findIf(any)) {
        const Handler handler = *_handlers.find(handle);
        deleteHandler(handle);
        if (handler.gone)
            handler.gone(handler.data);
    }
    _poll.reset();
    _quit = false;
    return 0;
}

void Loop::run() {
    if (++_runs > 1)
        misuse("ecore_main_loop_begin() is called inside itself, which the platform forbids: call "
               "ecore_main_loop_iterate() instead");
    while (!_quit && openPoll() && (runOnce(!_simulated) || !_simulated || jump(FOREVER))) {
    }
    --_runs;
    _quit = false;
}

bool Loop::runOnce(bool wait) {
    const Restored mayNest(_mayNest, false);
    return runRound(wait);
}

bool Loop::runOnceForClient() {
    const Restored mayNest(_mayNest, true);
    return runRound(false);
}

bool Loop::runRound(bool wait) {
    const bool buffered = deliverBuffered();
    const bool ready = deliverReady(wait && !buffered ? waitMilliseconds() : 0);
    const bool due = deliverTimers();
    return buffered || ready || due;
}

void Loop::advance(std::int64_t nanoseconds) {
    const Restored mayNest(_mayNest, true);
    const std::int64_t target = std::min(_virtualNow + nanoseconds, FOREVER);
    do {
        while (runRound(false)) {
        }
    } while (jump(target));
    _virtualNow = std::max(_virtualNow, target); // a callback may have moved it further
}

// Moves the virtual clock to the next deadline. Returns false if that is later than latest.
bool Loop::jump(std::int64_t latest) {
    if (!hasDue() || _due.front().first > latest)
        return false;
    _virtualNow = std::max(_virtualNow, _due.front().first);
    return true;
}

void *Loop::addTimer(double seconds, Ecore_Task_Cb func, void *data, bool internal) {
    if (!func || std::isnan(seconds))
        return nullptr;
    const std::int64_t interval = toNanoseconds(seconds);
    const std::int64_t deadline = now() + interval;
    void *handle;
    try {
        if (_due.capacity() <= _due.size() + _called)
            _due.reserve(2 * _due.capacity() + _called + 1);
        handle = _timers.add(Timer{deadline, interval, func, data, internal, false, _round});
        push({deadline, handle});
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
    _countedTimers += internal ? 0 : 1;
    return handle;
}

void *Loop::deleteTimer(void *handle) {
    const Timer timer = _timers.remove(handle);
    if (!timer.func) {
        if (handle)
            misuse("ecore_timer_del(): there is no such timer; it has been deleted, or its "
                   "callback has "
                   "returned ECORE_CALLBACK_CANCEL: forget a timer then");
        return nullptr;
    }
    _countedTimers -= timer.internal ? 0 : 1;
    if (timer.isCalled)
        return timer.data;
    if (_due.back().second == handle) // often the case for the latest timer
        _due.pop_back();
    else if (++_deleted > _due.size() / 2)
        dropDeleted();
    return timer.data;
}

void Loop::push(Due due) {
    _due.push_back(due);
    std::push_heap(_due.begin(), _due.end(), std::greater<>());
}

void Loop::pop() {
    std::pop_heap(_due.begin(), _due.end(), std::greater<>());
    _due.pop_back();
}

void Loop::dropDeleted() {
    const auto isDeleted = [this](const Due &due) { return !_timers.find(due.second); };
    _due.erase(std::remove_if(_due.begin(), _due.end(), isDeleted), _due.end());
    std::make_heap(_due.begin(), _due.end(), std::greater<>());
    _deleted = 0;
}

// Returns whether a timer is waiting. The front of _due is then not a deleted one.
bool Loop::hasDue() {
    while (_deleted > 0 && !_timers.find(_due.front().second)) {
        pop();
        --_deleted;
    }
    return !_due.empty();
}

// Rounded up, since a wait that ends before the deadline would be followed by another one.
int Loop::waitMilliseconds() {
    if (!hasDue())
        return -1;
    constexpr std::int64_t MILLISECOND = 1'000'000;
    const std::int64_t left = std::max<std::int64_t>(_due.front().first - now(), 0);
    return static_cast<int>(
        std::min<std::int64_t>((left + MILLISECOND - 1) / MILLISECOND, INT_MAX));
}

// Callbacks may change the heap. Timers that they add wait for the next round, so this loop ends.
bool Loop::deliverTimers() {
    if (!hasDue())
        return false;
    const std::uint64_t round = ++_round;
    const std::int64_t moment = now();
    bool delivered = false;
    while (hasDue() && _due.front().first <= moment &&
           _timers.find(_due.front().second)->round < round) {
        fire();
        delivered = true;
    }
    return delivered;
}

void Loop::fire() {
    void *const handle = _due.front().second;
    pop();
    ++_called;
    _timers.find(handle)->isCalled = true;
    const Timer called = *_timers.find(handle);
    const bool again = called.func(called.data) != ECORE_CALLBACK_CANCEL;
    --_called;
    Timer *const timer = _timers.find(handle);
    if (timer && !again) {
        deleteTimer(handle);
    } else if (timer) {
        const std::int64_t interval = std::max(timer->interval, MIN_RENEWAL);
        timer->deadline += interval;
        if (timer->deadline < now())
            timer->deadline = now() + interval;
        timer->isCalled = false;
        push({timer->deadline, handle});
    }
}

bool Loop::openPoll() {
    if (!_poll)
        _poll.reset(epoll_create1(EPOLL_CLOEXEC));
    if (!_poll)
        dlog_print(DLOG_ERROR, LOG_TAG, "the main loop cannot start: %s", std::strerror(errno));
    return static_cast<bool>(_poll);
}

void *Loop::addHandler(int fd, unsigned flags, Ecore_Fd_Cb func, void *data, Ecore_Fd_Cb bufFunc,
                       void *bufData, void (*gone)(void *data)) {
    if (!func || !openPoll())
        return nullptr;
    void *handle = nullptr;
    try {
        handle = _handlers.add(Handler{fd, flags, 0, func, data, bufFunc, bufData, gone});
        if (bufFunc)
            _buffered.push_back(handle);
        if (control(EPOLL_CTL_ADD, handle))
            return handle;
    } catch (const std::bad_alloc &) {
    }
    forget(handle);
    return nullptr;
}

void *Loop::deleteHandler(void *handle) {
    if (!_handlers.find(handle))
        return nullptr;
    control(EPOLL_CTL_DEL, handle);
    return forget(handle);
}

void *Loop::forget(void *handle) {
    const auto buffered = std::find(_buffered.begin(), _buffered.end(), handle);
    if (buffered != _buffered.end())
        _buffered.erase(buffered);
    return _handlers.remove(handle).data;
}

void Loop::setFlags(void *handle, unsigned flags) {
    Handler *const handler = _handlers.find(handle);
    if (handler && handler->flags != flags) {
        handler->flags = flags;
        control(EPOLL_CTL_MOD, handle);
    }
}

bool Loop::control(int operation, void *handle) {
    const Handler &handler = *_handlers.find(handle);
    epoll_event event{};
    event.events = toEpoll(handler.flags);
    event.data.ptr = handle;
    return epoll_ctl(_poll.get(), operation, handler.fd, &event) == 0;
}

unsigned Loop::active(void *handle) {
    const Handler *const handler = _handlers.find(handle);
    return handler ? handler->active : 0;
}

// Callbacks may change _buffered, so each step looks for the handle after the previous one.
bool Loop::deliverBuffered() {
    bool delivered = false;
    for (auto next = _buffered.cbegin(); next != _buffered.cend();) {
        void *const handle = *next;
        const Handler &handler = *_handlers.find(handle);
        if (handler.bufFunc(handler.bufData, static_cast<Ecore_Fd_Handler *>(handle))) {
            callHandler(handle, EPOLLIN);
            delivered = true;
        }
        next = std::upper_bound(_buffered.cbegin(), _buffered.cend(), handle);
    }
    return delivered;
}

bool Loop::deliverReady(int timeout) {
    if (!openPoll())
        return false;
    epoll_event events[EVENTS_PER_ROUND];
    const int count = epoll_wait(_poll.get(), events, EVENTS_PER_ROUND, timeout);
    // If a callback has run a round, the remaining events may be outdated. The next round asks
    // again.
    const std::uint64_t poll = ++_polls;
    for (int i = 0; i < count && poll == _polls; ++i)
        callHandler(events[i].data.ptr, events[i].events);
    return count > 0;
}

// The handler may have been deleted by its own bufFunc or by another handler in this round.
void Loop::callHandler(void *handle, std::uint32_t events) {
    Handler *const handler = _handlers.find(handle);
    if (!handler)
        return;
    const unsigned outer = handler->active; // set if this round runs inside the handler's callback
    handler->active = fromEpoll(events, handler->flags);
    const Eina_Bool answer = handler->func(handler->data, static_cast<Ecore_Fd_Handler *>(handle));
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
    return Loop::isOwnThread(__func__) ? Loop::instance().stop() : 0;
}

void ecore_main_loop_begin(void) {
    if (Loop::isOwnThread(__func__))
        Loop::instance().run();
}

void ecore_main_loop_quit(void) {
    if (Loop::isOwnThread(__func__))
        Loop::instance().quit();
}

void ecore_main_loop_iterate(void) {
    if (Loop::isOwnThread(__func__))
        Loop::instance().runOnce(false);
}

double ecore_time_get(void) {
    return host::toSeconds(Loop::instance().now());
}

Ecore_Timer *ecore_timer_add(double in, Ecore_Task_Cb func, const void *data) {
    Loop &loop = Loop::instance();
    if (!Loop::isOwnThread(__func__))
        return nullptr;
    loop.expectStarted(__func__);
    return static_cast<Ecore_Timer *>(loop.addTimer(in, func, const_cast<void *>(data), false));
}

void *ecore_timer_del(Ecore_Timer *timer) {
    Loop &loop = Loop::instance();
    return Loop::isOwnThread(__func__) ? loop.deleteTimer(timer) : nullptr;
}

Ecore_Fd_Handler *ecore_main_fd_handler_add(int fd, Ecore_Fd_Handler_Flags flags, Ecore_Fd_Cb func,
                                            const void *data, Ecore_Fd_Cb buf_func,
                                            const void *buf_data) {
    Loop &loop = Loop::instance();
    if (!Loop::isOwnThread(__func__))
        return nullptr;
    loop.expectStarted(__func__);
    return static_cast<Ecore_Fd_Handler *>(loop.addHandler(
        fd, flags, func, const_cast<void *>(data), buf_func, const_cast<void *>(buf_data)));
}

void *ecore_main_fd_handler_del(Ecore_Fd_Handler *fd_handler) {
    Loop &loop = Loop::instance();
    return Loop::isOwnThread(__func__) ? loop.deleteHandler(fd_handler) : nullptr;
}

Eina_Bool ecore_main_fd_handler_active_get(Ecore_Fd_Handler *fd_handler,
                                           Ecore_Fd_Handler_Flags flags) {
    return (Loop::instance().active(fd_handler) & flags) != 0 ? EINA_TRUE : EINA_FALSE;
}

void ecore_main_fd_handler_active_set(Ecore_Fd_Handler *fd_handler, Ecore_Fd_Handler_Flags flags) {
    if (Loop::isOwnThread(__func__))
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
