// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <functional>
#include <utility>

#include <Ecore.h>

namespace nelvoctl {

// A timer of the main loop that fires once; stopped by its destructor.
class Timer {
public:
    Timer() = default;
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;
    ~Timer() { stop(); }

    // Restarts the timer if it runs. The function may start it again, or destroy it. Returns false
    // if memory is short.
    bool start(double seconds, std::function<void()> then) {
        stop();
        _then = std::move(then);
        _timer = ecore_timer_add(seconds, firedCb, this);
        return _timer;
    }

    void stop() {
        if (_timer)
            ecore_timer_del(std::exchange(_timer, nullptr));
    }

    bool isRunning() const { return _timer; }

private:
    static Eina_Bool firedCb(void *data) {
        Timer &self = *static_cast<Timer *>(data);
        self._timer = nullptr;
        const auto then = std::move(self._then);
        then();
        return ECORE_CALLBACK_CANCEL;
    }

    Ecore_Timer *_timer = nullptr; // null: the timer does not run
    std::function<void()> _then;
};

} // namespace nelvoctl
