// SPDX-License-Identifier: Apache-2.0
#include <Ecore.h>

#include <cmath>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <host/sim.h>

namespace {

// A callback made of any function object, which has to outlive it.
using Task = std::function<bool()>;

Eina_Bool runTask(void *data) {
    return (*static_cast<Task *>(data))() ? ECORE_CALLBACK_RENEW : ECORE_CALLBACK_CANCEL;
}

Eina_Bool runFdTask(void *data, Ecore_Fd_Handler *) {
    return runTask(data);
}

Ecore_Timer *addTimer(double seconds, const Task &task) {
    return ecore_timer_add(seconds, runTask, &task);
}

Ecore_Fd_Handler *addHandler(int fd, const Task &task,
                             Ecore_Fd_Handler_Flags flags = ECORE_FD_READ) {
    return ecore_main_fd_handler_add(fd, flags, runFdTask, &task, nullptr, nullptr);
}

struct Pipe {
    Pipe() { EXPECT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK)); }
    ~Pipe() {
        close(ends[0]);
        close(ends[1]);
    }
    void fill() { EXPECT_EQ(1, write(ends[1], "x", 1)); }
    bool drain() {
        char byte;
        return read(ends[0], &byte, 1) == 1;
    }
    int ends[2] = {-1, -1};
};

class SimulatedLoopTest : public testing::Test {
protected:
    SimulatedLoopTest() { host_sim_start(); }
};

TEST_F(SimulatedLoopTest, FiresEachTimerAtItsMomentAndEqualOnesInOrderOfCreation) {
    std::string order;
    std::vector<double> moments;
    const auto note = [&](char name) {
        return [&, name] {
            order += name;
            moments.push_back(host_sim_now());
            return false;
        };
    };
    const Task a = note('a'), b = note('b'), c = note('c'), d = note('d'), e = note('e');
    addTimer(0.3, a);
    addTimer(0.1, b);
    addTimer(0.3, c);
    addTimer(0, d);
    addTimer(-1, e);
    host_sim_advance(0);
    EXPECT_EQ("de", order);
    for (int i = 0; i < 3; ++i) {
        host_sim_advance(0.1); // three tenths are three tenths
    }
    EXPECT_EQ("debac", order);
    EXPECT_EQ((std::vector<double>{0, 0, 0.1, 0.3, 0.3}), moments);
    EXPECT_EQ(0, host_sim_timer_count());
}

TEST_F(SimulatedLoopTest, KeepsTheRhythmOfARenewedTimerUnlessAWholeIntervalIsMissed) {
    std::vector<double> moments;
    double blocked = 0.4; // for how long the first call keeps the loop
    const Task task = [&] {
        moments.push_back(host_sim_now());
        host_sim_advance(std::exchange(blocked, 0));
        return true;
    };
    Ecore_Timer *const timer = addTimer(1, task);
    host_sim_advance(3);
    EXPECT_EQ((std::vector<double>{1, 2, 3}), moments);
    blocked = 1.5;
    host_sim_advance(3.5);
    EXPECT_EQ((std::vector<double>{1, 2, 3, 4, 6.5}), moments);
    EXPECT_EQ(&task, ecore_timer_del(timer));
    EXPECT_EQ(nullptr, ecore_timer_del(timer));
    host_sim_advance(10);
    EXPECT_EQ(5U, moments.size());
}

TEST_F(SimulatedLoopTest, SurvivesEveryDeletionFromInsideATimerCallback) {
    Ecore_Timer *self = nullptr;
    Ecore_Timer *other = nullptr;
    const struct {
        const char *what;
        Task task;
    } rows[] = {
        {"itself, then cancel", [&] { return ecore_timer_del(self) == nullptr; }},
        {"itself, then renew", [&] { return ecore_timer_del(self) != nullptr; }},
        {"itself, and a new one takes its place",
         [&] {
             static const Task never = [] { return false; };
             ecore_timer_del(self);
             ecore_timer_del(addTimer(9, never));
             return true;
         }},
        {"itself, from a round of its own",
         [&] {
             ecore_main_loop_iterate();
             return ecore_timer_del(self) != nullptr;
         }},
        {"one that is due next",
         [&] {
             ecore_timer_del(std::exchange(other, nullptr));
             return false;
         }},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        int calls = 0;
        int others = 0;
        const Task task = [&] { return ++calls, row.task(); };
        const Task otherTask = [&] { return ++others, false; };
        self = addTimer(1, task);
        other = addTimer(1, otherTask);
        host_sim_advance(5);
        EXPECT_EQ(1, calls);
        EXPECT_EQ(other ? 1 : 0, others);
        EXPECT_EQ(0, host_sim_timer_count());
    }
}

TEST_F(SimulatedLoopTest, GivesDescriptorsAndTimersATurnInEachRound) {
    Pipe pipe;
    pipe.fill();
    std::string turns;
    const Task never = [] { return false; };
    const Task flood = [&] { return turns += 'f', true; }; // does not read
    const Task storm = [&] { return turns += 't', true; };
    const Task chain = [&] {
        turns += 'c';
        addTimer(0, chain);
        return false;
    };
    addHandler(pipe.ends[0], flood);
    addTimer(0, storm);
    addTimer(0, chain);
    for (int i = 0; i < 3; ++i) {
        ecore_main_loop_iterate();
    }
    EXPECT_EQ("ftcfcfc", turns); // the storm comes back with the next tick of the clock
}

TEST_F(SimulatedLoopTest, DeliversDescriptorsBetweenTheDeadlines) {
    Pipe pipe;
    std::vector<double> arrivals;
    const Task arrive = [&] {
        arrivals.push_back(host_sim_now());
        return pipe.drain();
    };
    const Task send = [&] { return pipe.fill(), true; };
    addHandler(pipe.ends[0], arrive);
    addTimer(1, send);
    host_sim_advance(2.5);
    EXPECT_EQ((std::vector<double>{1, 2}), arrivals);
}

TEST_F(SimulatedLoopTest, DeletesHandlersFromInsideAnyOfTheirCallbacks) {
    Pipe pipes[2];
    Ecore_Fd_Handler *handlers[2];
    int calls = 0;
    const Task task = [&] {
        ++calls;
        EXPECT_EQ(&task, ecore_main_fd_handler_del(handlers[0]));
        EXPECT_EQ(&task, ecore_main_fd_handler_del(handlers[1]));
        return true;
    };
    for (int i = 0; i < 2; ++i) {
        pipes[i].fill();
        handlers[i] = addHandler(pipes[i].ends[0], task);
    }
    host_sim_advance(0);
    EXPECT_EQ(1, calls);
    EXPECT_EQ(nullptr, ecore_main_fd_handler_del(handlers[0]));
}

TEST_F(SimulatedLoopTest, NeverDeliversAStaleEventToALaterHandlerOfTheSameNumber) {
    Pipe first;
    Pipe second;
    int wrong = 0;
    const Task late = [&] { return ++wrong, true; };
    Ecore_Fd_Handler *handlers[2];
    const Pipe *const pipes[] = {&first, &second};
    Pipe fresh;
    const Task replace = [&] {
        // Whichever comes first replaces both; the other one's event is in flight.
        for (int i = 0; i < 2; ++i) {
            ecore_main_fd_handler_del(handlers[i]);
            dup2(fresh.ends[0], pipes[i]->ends[0]);
            EXPECT_NE(nullptr, addHandler(pipes[i]->ends[0], late));
        }
        return true;
    };
    first.fill();
    second.fill();
    handlers[0] = addHandler(first.ends[0], replace);
    handlers[1] = addHandler(second.ends[0], replace);
    ecore_main_loop_iterate();
    EXPECT_EQ(0, wrong);
}

TEST_F(SimulatedLoopTest, DeliversANestedRoundAndNothingTwice) {
    Pipe pipes[2];
    int reads = 0;
    const auto readIn = [&](Pipe &pipe) {
        return [&] {
            const bool had = pipe.drain();
            EXPECT_TRUE(had); // an event that the inner round has used up comes no second time
            reads += had ? 1 : 0;
            ecore_main_loop_iterate();
            return true;
        };
    };
    const Task first = readIn(pipes[0]), second = readIn(pipes[1]);
    addHandler(pipes[0].ends[0], first);
    addHandler(pipes[1].ends[0], second);
    pipes[0].fill();
    pipes[1].fill();
    host_sim_advance(0);
    EXPECT_EQ(2, reads);
}

TEST_F(SimulatedLoopTest, TellsAHandlerWhatItsDescriptorIsReadyFor) {
    const struct {
        const char *when;
        int end;
        Ecore_Fd_Handler_Flags watched;
        std::function<void(Pipe &)> before;
        int expected; // -1: not called
    } rows[] = {
        {"nothing to read", 0, ECORE_FD_READ, [](Pipe &) {}, -1},
        {"something to read", 0, ECORE_FD_READ, [](Pipe &pipe) { pipe.fill(); }, ECORE_FD_READ},
        {"not watched for it", 0, ECORE_FD_ERROR, [](Pipe &pipe) { pipe.fill(); }, -1},
        {"room to write", 1, ECORE_FD_WRITE, [](Pipe &) {}, ECORE_FD_WRITE},
        {"the reader is gone", 1, ECORE_FD_ERROR,
         [](Pipe &pipe) { dup2(pipe.ends[1], pipe.ends[0]); }, ECORE_FD_ERROR},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.when);
        Pipe pipe;
        row.before(pipe);
        int seen = -1;
        const auto note = [](void *data, Ecore_Fd_Handler *handler) {
            int active = 0;
            for (const auto flag : {ECORE_FD_READ, ECORE_FD_WRITE, ECORE_FD_ERROR}) {
                active |= ecore_main_fd_handler_active_get(handler, flag) ? flag : 0;
            }
            *static_cast<int *>(data) = active;
            return ECORE_CALLBACK_RENEW;
        };
        Ecore_Fd_Handler *const handler = ecore_main_fd_handler_add(pipe.ends[row.end], row.watched,
                                                                    note, &seen, nullptr, nullptr);
        ecore_main_loop_iterate();
        EXPECT_EQ(row.expected, seen);
        EXPECT_FALSE(ecore_main_fd_handler_active_get(handler, row.watched)); // it has returned
        EXPECT_EQ(&seen, ecore_main_fd_handler_del(handler));
    }
}

TEST_F(SimulatedLoopTest, AsksForDataThatTheCallerHasReadAlready) {
    Pipe pipe;
    int left = 2;
    int calls = 0;
    const Task take = [&] { return --left, ++calls, true; };
    const Task ask = [&] { return left > 0; };
    ecore_main_fd_handler_add(pipe.ends[0], ECORE_FD_READ, runFdTask, &take, runFdTask, &ask);
    host_sim_advance(0);
    EXPECT_EQ(2, calls);
}

TEST_F(SimulatedLoopTest, RefusesWhatItCannotWatchOrTime) {
    const Task task = [] { return false; };
    Pipe pipe;
    EXPECT_EQ(nullptr, addTimer(std::nan(""), task));
    EXPECT_EQ(nullptr, ecore_timer_add(1, nullptr, nullptr));
    EXPECT_EQ(nullptr, ecore_timer_del(nullptr));
    EXPECT_EQ(nullptr, addHandler(-1, task));
    EXPECT_NE(nullptr, addHandler(pipe.ends[0], task));
    EXPECT_EQ(nullptr, addHandler(pipe.ends[0], task));
    EXPECT_NE(nullptr, addTimer(std::numeric_limits<double>::infinity(), task));
    host_sim_advance(1e300);
    host_sim_advance(1e300);
    EXPECT_LT(1e9, host_sim_now());
}

TEST_F(SimulatedLoopTest, RunsUntilNothingIsLeftOrItIsToldToQuit) {
    int calls = 0;
    const Task task = [&] {
        if (++calls == 3) {
            ecore_main_loop_quit();
        }
        return calls < 5;
    };
    addTimer(1, task);
    ecore_main_loop_begin();
    EXPECT_EQ(3, calls);
    ecore_main_loop_begin();
    EXPECT_EQ(5, calls);
    EXPECT_EQ(5.0, host_sim_now());
}

TEST_F(SimulatedLoopTest, EndsWithTheLastShutdown) {
    const Task task = [] { return true; };
    Pipe pipe;
    EXPECT_EQ(1, ecore_init());
    EXPECT_EQ(2, ecore_init());
    addTimer(1, task);
    addHandler(pipe.ends[0], task);
    EXPECT_EQ(1, ecore_shutdown());
    EXPECT_EQ(1, host_sim_timer_count());
    EXPECT_EQ(0, ecore_shutdown());
    EXPECT_EQ(0, ecore_shutdown());
    EXPECT_EQ(0, host_sim_timer_count());
    EXPECT_EQ(1, ecore_init());
    EXPECT_NE(nullptr, addHandler(pipe.ends[0], task));
}

TEST(LoopTest, SleepsBetweenItsTimersAndNeverFiresEarly) {
    const double begin = ecore_time_get();
    double fired = 0;
    const Task task = [&] {
        fired = ecore_time_get();
        ecore_main_loop_quit();
        return false;
    };
    addTimer(0.0309, task);
    Pipe pipe;
    int rounds = 0;
    const Task count = [&] { return ++rounds, false; };
    ecore_main_fd_handler_add(pipe.ends[0], ECORE_FD_READ, runFdTask, &count, runFdTask, &count);
    ecore_main_loop_begin();
    EXPECT_LE(begin + 0.0309, fired);
    EXPECT_EQ(1, rounds);
}

} // namespace
