// SPDX-License-Identifier: Apache-2.0
#include <Ecore.h>

#include <cmath>
#include <deque>
#include <sstream>
#include <string>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <host/sim.h>

namespace {

// In place of a timer's seconds: a descriptor with nothing to read, and one with something.
constexpr double EMPTY = 1000, FULL = 1001;

// A timer or handler that notes its name and the time when it is called, and then does what its
// script says:
//
//   x X  deletes itself, the next one              + !  a timer of 0 s, a round inside, once
//   r w  reads its descriptor, writes the next's   n    all handlers and their numbers are new
//   q >  quits the main loop, renews               s A  stays for a while, is active
struct Actor {
    char name;
    std::string script;
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int calls = 0;
    Ecore_Timer *timer = nullptr;
    Ecore_Fd_Handler *handler = nullptr;
};

constexpr double STAYS[] = {0.4, 1.5, 1}; // the first three times

std::deque<Actor> actors;
std::ostringstream notes;
double begin;

Eina_Bool act(void *data);

Ecore_Fd_Handler *watch(Actor &actor, int fd) {
    const auto actFd = [](void *data, Ecore_Fd_Handler *) { return act(data); };
    return ecore_main_fd_handler_add(fd, ECORE_FD_READ, actFd, &actor, nullptr, nullptr);
}

void *remove(const Actor &actor) {
    return actor.timer ? ecore_timer_del(actor.timer) : ecore_main_fd_handler_del(actor.handler);
}

Eina_Bool act(void *data) {
    Actor &self = *static_cast<Actor *>(data);
    Actor &next = actors[static_cast<std::size_t>(self.name - 'a' + 1) % actors.size()];
    notes << self.name << host_sim_now() - begin << ' ';
    ++self.calls;
    for (const char action : self.script) {
        eventfd_t value;
        if (action == 'x')
            EXPECT_EQ(&self, remove(self));
        else if (action == 'X')
            EXPECT_EQ(&next, remove(next));
        else if (action == 'A')
            EXPECT_TRUE(ecore_main_fd_handler_active_get(self.handler, ECORE_FD_READ));
        else if (action == '+')
            self.timer = ecore_timer_add(0, act, &self);
        else if (action == '!' && self.calls == 1)
            ecore_main_loop_iterate();
        else if (action == 'r')
            EXPECT_EQ(0, eventfd_read(self.fd, &value)); // no event without something to read
        else if (action == 'w')
            EXPECT_EQ(eventfd_write(next.fd, 1), 0);
        else if (action == 'q')
            ecore_main_loop_quit();
        else if (action == 's')
            host_sim_advance(self.calls < 4 ? STAYS[self.calls - 1] : 0);
        for (std::size_t i = 0; action == 'n' && i < actors.size(); ++i) {
            remove(actors[i]);
            close(actors[i].fd);
            EXPECT_EQ(actors[i].fd, eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
            actors[i].handler = watch(actors[i], actors[i].fd);
        }
    }
    return self.script.find('>') != std::string::npos;
}

void play(const std::vector<std::pair<double, const char *>> &scripts) {
    host_sim_start();
    begin = host_sim_now();
    notes.str("");
    for (const auto &[kind, script] : scripts) {
        Actor &actor = actors.emplace_back();
        actor.name = static_cast<char>('a' + actors.size() - 1);
        actor.script = script;
        eventfd_write(actor.fd, kind == FULL ? 1 : 0);
        if (kind < EMPTY)
            actor.timer = ecore_timer_add(kind, act, &actor);
        else
            actor.handler = watch(actor, actor.fd);
    }
}

void clear() {
    for (Actor &actor : actors) {
        remove(actor);
        close(actor.fd);
    }
    actors.clear();
}

TEST(LoopTest, DeliversEachEventOnceAtItsMomentWhateverTheCallbacksDo) {
    const struct {
        const char *what;
        std::vector<std::pair<double, const char *>> scripts;
        double seconds; // negative: so many rounds
        const char *notes;
    } rows[] = {
        {"equal deadlines",
         {{.3, ""}, {.1, ""}, {.3, ""}, {0, ""}, {-1, ""}},
         9,
         "d0 e0 b0.1 a0.3 c0.3 "},
        {"a rhythm of a tenth", {{.1, ">"}, {.3, ""}}, .3, "a0.1 a0.2 a0.3 b0.3 "},
        {"a rhythm that is late", {{1, "s>"}}, 6, "a1 a2 a4.5 a5.5 "},
        {"reading between deadlines", {{1, "w>"}, {EMPTY, "r>"}}, 2, "a1 b1 a2 b2 "},
        {"a timer deletes itself", {{1, "x"}, {1, ""}}, 9, "a1 b1 "},
        {"it deletes itself and renews", {{1, "x>"}, {1, ""}}, 9, "a1 b1 "},
        {"another takes its place", {{1, "x+x>"}, {1, ""}}, 9, "a1 b1 "},
        {"it deletes itself after a round inside", {{1, "!x>"}, {1, ""}}, 9, "a1 b1 "},
        {"it deletes the next one", {{1, "X"}, {1, ""}}, 9, "a1 "},
        {"handlers cancel", {{FULL, ""}, {EMPTY, ""}, {FULL, ""}}, 9, "a0 c0 "},
        {"one deletes itself and the next one", {{FULL, "xX>"}, {FULL, ">"}}, 9, "a0 "},
        {"rounds inside", {{FULL, "r!>"}, {FULL, "r!>"}}, 9, "a0 b0 "},
        {"the same handler inside", {{FULL, "A!A>"}}, -1, "a0 a0 "},
        {"a stale event and a new handler", {{FULL, "n>"}, {FULL, "n>"}}, 9, "a0 "},
        {"floods", {{FULL, ">"}, {0, ">"}, {0, "+"}}, -3, "a0 b0 c0 a0 c0 a0 c0 "},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        play(row.scripts);
        for (double round = row.seconds; round < 0; ++round)
            ecore_main_loop_iterate();
        if (row.seconds > 0)
            host_sim_advance(row.seconds);
        EXPECT_EQ(row.notes, notes.str());
        clear();
        EXPECT_EQ(host_sim_timer_count(), 0);
    }
}

TEST(LoopTest, RunsUntilItIsToldToQuitOrNothingIsLeftOrTheLastShutdown) {
    play({{1, "q"}, {2, ""}, {FULL, ""}});
    for (const char *expected : {"c0 a1 ", "c0 a1 b2 "}) {
        ecore_main_loop_begin();
        EXPECT_EQ(expected, notes.str());
    }
    clear();
    play({{1, ""}, {EMPTY, ""}});
    EXPECT_EQ(ecore_init(), 1);
    EXPECT_EQ(ecore_init(), 2);
    for (const int left : {1, 0, 0}) {
        EXPECT_EQ(left, ecore_shutdown());
        EXPECT_EQ(left, host_sim_timer_count());
    }
    EXPECT_EQ(nullptr, remove(actors[1]));
    EXPECT_NE(nullptr, watch(actors[1], actors[1].fd));
}

TEST(LoopTest, RefusesWhatItCannotWatchOrTime) {
    play({{EMPTY, ""}});
    EXPECT_EQ(nullptr, watch(actors[0], -1));
    EXPECT_EQ(nullptr, watch(actors[0], actors[0].fd)); // has a handler already
    EXPECT_EQ(nullptr, ecore_timer_del(reinterpret_cast<Ecore_Timer *>(actors[0].handler)));
    EXPECT_EQ(nullptr, ecore_timer_add(NAN, act, nullptr));
    EXPECT_EQ(nullptr, ecore_timer_add(1, nullptr, nullptr));
    EXPECT_NE(nullptr, ecore_timer_add(INFINITY, act, &actors[0]));
    host_sim_advance(1e300);
    host_sim_advance(1e300);
    EXPECT_LT(1e9, host_sim_now());
}

TEST(LoopTest, SleepsBetweenItsTimersAndNeverFiresEarly) {
    static double due = ecore_time_get() + 0.0309;
    static int left = 2; // pieces of data that the caller holds already
    static int asked = 0;
    const auto quit = [](void *) {
        EXPECT_LE(due, ecore_time_get());
        return ecore_main_loop_quit(), ECORE_CALLBACK_CANCEL;
    };
    const auto take = [](void *, Ecore_Fd_Handler *) { return --left, ECORE_CALLBACK_RENEW; };
    const auto ask = [](void *, Ecore_Fd_Handler *) -> Eina_Bool { return ++asked, left > 0; };
    ecore_timer_add(0.0309, quit, nullptr);
    ecore_main_fd_handler_add(eventfd(0, 0), ECORE_FD_READ, take, nullptr, ask, nullptr);
    ecore_main_loop_begin();
    EXPECT_EQ(left, 0);
    EXPECT_EQ(3, asked); // and not once more while nothing happened
}

} // namespace
