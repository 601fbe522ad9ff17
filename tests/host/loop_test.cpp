// SPDX-License-Identifier: Apache-2.0
#include <Ecore.h>

#include <cmath>
#include <deque>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <host/sim.h>

namespace {

Eina_Bool quit(void *calls) {
    ++*static_cast<int *>(calls);
    ecore_main_loop_quit();
    return ECORE_CALLBACK_CANCEL;
}

// First, because the other tests simulate the clock for the rest of the process.
TEST(LoopTest, SleepsBetweenItsTimers) {
    static int left = 2, asked = 0; // pieces of data that the caller holds already
    int calls = 0;
    const auto take = [](void *, Ecore_Fd_Handler *) { return --left, ECORE_CALLBACK_RENEW; };
    const auto ask = [](void *, Ecore_Fd_Handler *) -> Eina_Bool { return ++asked, left > 0; };
    ecore_timer_add(0.0309, quit, &calls);
    ecore_main_fd_handler_add(eventfd(0, 0), ECORE_FD_READ, take, nullptr, ask, nullptr);
    ecore_main_loop_begin();
    EXPECT_EQ(left, 0);
    EXPECT_EQ(asked, 3) << "once more while nothing happened";
}

// A timer or handler that notes its name and the time when it is called, and then does what its
// script says:
//
//   x X  deletes itself, the next one              + !  a timer of 0 s, a round inside, once
//   r    reads its descriptor                      n    the next descriptor and its handler are new
//   s    stays, half a second longer each time     > A  renews three times, is active
struct Actor {
    std::string script;
    char name = 'a';
    int fd = eventfd(1, EFD_NONBLOCK);
    int calls = 0;
    Ecore_Timer *timer = nullptr;
    Ecore_Fd_Handler *handler = nullptr;
};

std::deque<Actor> actors;
constexpr double READY = 1000; // in place of a timer's seconds: a descriptor to read

std::ostringstream notes;
double begin;

Eina_Bool act(void *data);

Ecore_Fd_Handler *watch(int fd, Actor *actor = nullptr) {
    const auto actFd = [](void *data, Ecore_Fd_Handler *) { return act(data); };
    return ecore_main_fd_handler_add(fd, ECORE_FD_READ, actFd, actor, nullptr, nullptr);
}

void *remove(const Actor &actor) {
    return actor.timer ? ecore_timer_del(actor.timer) : ecore_main_fd_handler_del(actor.handler);
}

Eina_Bool act(void *data) {
    Actor &self = *static_cast<Actor *>(data);
    Actor &next = actors[static_cast<std::size_t>(self.name - 'a' + 1) % actors.size()];
    notes << self.name << host_sim_now() - begin << ' ';
    ++self.calls;
    bool renews = false;
    for (const char action : self.script) {
        eventfd_t value;
        if (action == 'x')
            EXPECT_EQ(remove(self), &self);
        else if (action == 'X')
            EXPECT_EQ(remove(next), &next);
        else if (action == 'A')
            EXPECT_TRUE(ecore_main_fd_handler_active_get(self.handler, ECORE_FD_READ));
        else if (action == '+' && self.calls < 4)
            self.timer = ecore_timer_add(0, act, &self);
        else if (action == '!' && self.calls == 1)
            ecore_main_loop_iterate();
        else if (action == 'r')
            EXPECT_EQ(eventfd_read(self.fd, &value), 0); // no event without something to read
        else if (action == 's')
            host_sim_advance(0.5 * self.calls);
        else if (action == '>')
            renews = self.calls < 4;
        else if (action == 'n') {
            remove(next);
            close(next.fd);
            EXPECT_EQ(eventfd(0, EFD_NONBLOCK), next.fd);
            next.handler = watch(next.fd, &next);
        }
    }
    return renews;
}

TEST(LoopTest, DeliversEachEventOnceAtItsMomentWhateverTheCallbacksDo) {
    const struct {
        const char *what;
        std::vector<std::pair<double, const char *>> scripts;
        const char *notes;
    } rows[] = {
        {"equal deadlines", {{.3, ""}, {.1, ""}, {.3, ""}, {-1, ""}}, "d0 b0.1 a0.3 c0.3 "},
        {"a rhythm of a tenth", {{.1, ">"}, {.3, ""}}, "a0.1 a0.2 a0.3 b0.3 a0.4 "},
        {"a rhythm that is late", {{1, "s>"}}, "a1 a2 a3 a5.5 "},
        {"a timer deletes itself", {{1, "x"}, {1, ""}}, "a1 b1 "},
        {"it deletes itself and renews", {{1, "x>"}, {1, ""}}, "a1 b1 "},
        {"another takes its place", {{1, "x+x>"}, {1, ""}}, "a1 b1 "},
        {"it deletes itself after a round inside", {{1, "!x>"}, {1, ""}}, "a1 b1 "},
        {"it deletes the next one", {{1, "X"}, {1, ""}}, "a1 "},
        {"handlers cancel", {{READY, ""}, {READY, ""}}, "a0 b0 "},
        {"one deletes itself and the next one", {{READY, "xX>"}, {READY, ">"}}, "a0 "},
        {"rounds inside", {{READY, "r!>"}, {READY, "r!>"}}, "a0 b0 "},
        {"the same handler inside", {{READY, "A!A>"}}, "a0 a0 a0 a0 "},
        {"a stale event and a new handler", {{READY, "n"}, {READY, ""}}, "a0 "},
        {"floods of each kind", {{READY, ">"}, {0, "+"}}, "a0 b0 a0 b0 a0 b0 a0 b0 "},
        {"a timer of 0 s renews", {{0, ">"}}, "a0 a1e-06 a2e-06 a3e-06 "},
    };
    host_sim_start();
    for (const auto &row : rows) {
        begin = host_sim_now();
        for (const auto &[seconds, script] : row.scripts) {
            Actor &actor = actors.emplace_back();
            actor.script = script;
            actor.name = static_cast<char>('a' + actors.size() - 1);
            if (seconds == READY)
                actor.handler = watch(actor.fd, &actor);
            else
                actor.timer = ecore_timer_add(seconds, act, &actor);
        }
        host_sim_advance(9);
        EXPECT_EQ(notes.str(), row.notes) << row.what;
        EXPECT_EQ(host_sim_timer_count(), 0) << row.what;
        for (Actor &actor : actors) {
            remove(actor);
            close(actor.fd);
        }
        actors.clear();
        notes.str("");
    }
}

TEST(LoopTest, RunsUntilItIsToldToQuitOrNothingIsLeftOrTheLastShutdown) {
    int calls = 0;
    host_sim_start();
    EXPECT_EQ(ecore_init(), 1);
    EXPECT_EQ(ecore_init(), 2);
    ecore_timer_add(1, quit, &calls);
    ecore_timer_add(2, quit, &calls);
    for (const int expected : {1, 2, 2}) {
        ecore_main_loop_begin();
        EXPECT_EQ(calls, expected);
    }
    ecore_timer_add(1, quit, &calls);
    Actor watched;
    watched.handler = watch(watched.fd, &watched);
    for (const int left : {1, 0, 0}) {
        EXPECT_EQ(ecore_shutdown(), left);
        EXPECT_EQ(host_sim_timer_count(), left);
    }
    EXPECT_EQ(remove(watched), nullptr) << "the handler is gone";
}

TEST(LoopTest, RefusesWhatItCannotWatchOrTime) {
    int calls = 0;
    const int fd = eventfd(0, 0);
    host_sim_start();
    Ecore_Fd_Handler *const handler = watch(fd);
    EXPECT_NE(handler, nullptr);
    EXPECT_EQ(watch(fd), nullptr) << "has a handler already";
    EXPECT_EQ(watch(-1), nullptr);
    EXPECT_EQ(ecore_timer_del(reinterpret_cast<Ecore_Timer *>(handler)), nullptr);
    EXPECT_EQ(ecore_timer_add(NAN, quit, &calls), nullptr);
    EXPECT_EQ(ecore_timer_add(1, nullptr, nullptr), nullptr);
    EXPECT_NE(ecore_timer_add(INFINITY, quit, &calls), nullptr);
    host_sim_advance(1e300);
    host_sim_advance(1e300);
    EXPECT_GT(host_sim_now(), 1e9);
}

} // namespace
