// SPDX-License-Identifier: Apache-2.0
#include "soak_application.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <dirent.h>
#include <malloc.h>

#include <host/sim.h>
#include <nelvo.h>

#include "allocation_faults.h"
#include "platform_faults.h"

namespace nelvo::testkit::soak {
namespace {

constexpr double LATER = 0.0005;
constexpr double JUST_BEFORE_THE_WATCH = 30 - 1e-6; // in virtual time nothing comes in between
constexpr double TELL_SECONDS = 0.01;
constexpr std::size_t FILL_BYTES = std::size_t{128} << 10;

long residentKiB() {
    char line[256];
    long size = -1;
    FILE *file = std::fopen("/proc/self/smaps_rollup", "r"); // exact, where statm is not
    while (file && size < 0 && std::fgets(line, sizeof line, file))
        std::sscanf(line, "Rss: %ld", &size);
    if (file)
        std::fclose(file);
    return size;
}

long openDescriptors() {
    long count = -1; // its own
    DIR *folder = opendir("/proc/self/fd");
    while (folder && readdir(folder))
        ++count;
    if (folder)
        closedir(folder);
    return count;
}

Level levelNow() {
    malloc_trim(0); // what is free is not held
    Level level{residentKiB(), liveBlocks(), host_sim_timer_count(), openDescriptors(), {}};
    std::snprintf(level.handles, sizeof level.handles, "%s", liveHandles().c_str());
    return level;
}

} // namespace

Application::Application(Ledger &ledger) : _ledger(ledger) {
    for (std::uint64_t i = 0; i < ledger.requests; ++i)
        (void)ledger.entries[i].fate.load(); // so that its pages are resident from the start
    ledger.start = levelNow();
}

void Application::start() {
    const bool started = nelvo_initialize() == NELVO_ERROR_NONE &&
                         nelvo_set_action_execution_cb("work", actionCb, this) == 0 &&
                         nelvo_set_action_execution_cb("fill", fillCb, this) == 0 &&
                         nelvo_set_app_state_request_cb(stateCb, this) == 0;
    _ledger.wrong += started ? 0 : 1;
}

void Application::stop() {
    nelvo_deinitialize();
    _ledger.end = levelNow();
}

void Application::tellLevel() {
    const int question = _ledger.asked;
    if (question == _ledger.told)
        return;
    _ledger.level = levelNow();
    _ledger.told = question;
}

Eina_Bool Application::tellCb(void *data) {
    auto *self = static_cast<Application *>(data);
    self->tellLevel();
    if (self->_ledger.stop)
        ecore_main_loop_quit();
    return self->_ledger.stop ? ECORE_CALLBACK_CANCEL : ECORE_CALLBACK_RENEW;
}

int Application::run(Ledger &ledger) {
    ecore_init();
    Application application(ledger);
    application.start();
    ecore_timer_add(TELL_SECONDS, tellCb, &application);
    ecore_main_loop_begin();
    application.stop();
    ecore_shutdown();
    return 0;
}

void Application::actionCb(void *handler, bundle *request, void *data) {
    void *bytes = nullptr;
    std::size_t size = 0;
    std::uint64_t id = ~std::uint64_t{0};
    if (bundle_get_byte(request, "requestId", &bytes, &size) == BUNDLE_ERROR_NONE)
        std::memcpy(&id, bytes, sizeof id); // the library lets no other size in
    static_cast<Application *>(data)->called(handler, id, false);
}

void Application::fillCb(void *handler, bundle *, void *data) {
    static const std::string fill(FILL_BYTES, '*');
    auto *self = static_cast<Application *>(data);
    self->overtake();
    nelvo_complete_action_execution(handler, fill.c_str());
}

void Application::stateCb(void *handler, void *data) {
    auto *self = static_cast<Application *>(data);
    self->called(handler, self->_ledger.stateRequest, true);
}

void Application::overtake() {
    if (_settleTimer) {
        ecore_timer_del(_settleTimer);
        meet(OVERTAKEN);
    }
    _settleTimer = nullptr;
}

// The ids of hostile clients are beyond the ledger.
void Application::called(void *handler, std::uint64_t id, bool isState) {
    overtake();
    _handler = handler;
    _id = id;
    _isState = isState;
    if (id >= _ledger.requests) {
        nelvo_complete_action_execution(handler, "");
        return;
    }
    const std::uint64_t round = id / HONEST % 8;
    _isLeft = round == 7 && _ledger.isVirtual;
    if (round < 5)
        complete();
    else
        _settleTimer = ecore_timer_add(_isLeft ? JUST_BEFORE_THE_WATCH : LATER, settleCb, this);
}

// A request that does not reach a callback may have overtaken ours.
Eina_Bool Application::settleCb(void *data) {
    auto *self = static_cast<Application *>(data);
    self->_settleTimer = nullptr;
    char *name = nullptr;
    if (nelvo_get_action_name(self->_handler, &name) != NELVO_ERROR_NONE) {
        self->meet(OVERTAKEN);
    } else if (self->_isLeft) {
        ++self->_ledger.timedOut;
        self->meet(ANSWERED);
    } else {
        self->complete();
    }
    std::free(name);
    return ECORE_CALLBACK_CANCEL;
}

void Application::complete() {
    const auto finish =
        _isState ? nelvo_complete_app_state_request : nelvo_complete_action_execution;
    if (finish(_handler, std::to_string(_id).c_str()) != NELVO_ERROR_NONE)
        ++_ledger.wrong;
    meet(ANSWERED);
}

void Application::meet(Fate fate) {
    if (_ledger.entries[_id].fate.exchange(fate) != UNKNOWN)
        ++_ledger.wrong;
}

} // namespace nelvo::testkit::soak
