// SPDX-License-Identifier: Apache-2.0
#include "unique_fd.h"

#include <mutex>

#include <pthread.h>

#include <dlog.h>

#include "log_tag.h"
#include "loop.h"

namespace host {

namespace {

// The list of all, and what guards it: another thread may fork at any moment.
struct All {
    std::mutex mutex;
    ParentsFd *first = nullptr;
    bool isWatchingForks = false;

    static All &instance() {
        static All &all = *new All;
        return all;
    }
};

} // namespace

ParentsFd::ParentsFd(UniqueFd fd) : _fd(std::move(fd)) {
    All &all = All::instance();
    const std::lock_guard<std::mutex> lock(all.mutex);
    if (!all.isWatchingForks) {
        const auto before = [] { All::instance().mutex.lock(); };
        const auto after = [] { All::instance().mutex.unlock(); };
        all.isWatchingForks = pthread_atfork(before, after, closeAllInChild) == 0;
        if (!all.isWatchingForks)
            dlog_print(DLOG_ERROR, LOG_TAG, "fork() will share sockets: out of memory");
    }
    _next = all.first;
    if (_next)
        _next->_previous = this;
    all.first = this;
}

ParentsFd::~ParentsFd() {
    All &all = All::instance();
    const std::lock_guard<std::mutex> lock(all.mutex);
    (_previous ? _previous->_next : all.first) = _next;
    if (_next)
        _next->_previous = _previous;
}

void ParentsFd::closeAllInChild() {
    All &all = All::instance();
    if (!Loop::instance().isSimulated()) {
        for (ParentsFd *each = all.first; each; each = each->_next)
            each->_fd.reset();
    }
    all.mutex.unlock();
}

} // namespace host
