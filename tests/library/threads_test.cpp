// SPDX-License-Identifier: Apache-2.0
// What may run on any thread: creating the singletons and callback objects.

#include <atomic>
#include <cstring>
#include <functional>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <host/log.h>
#include <host/sim.h>
#include <nelvo.h>

#include "action_request_impl.h"
#include "message/message.h"
#include "nelvo_common_data.h"
#include "state_request_impl.h"

namespace {

std::atomic<int> decisions(0); // how often the SDK version was read

void countDecisions(log_priority, const char *, const char *text, void *) {
    decisions += std::strstr(text, "AppId = demo.app") != nullptr;
}

// Runs work(0) to work(count - 1) on threads of their own that begin together.
void together(std::size_t count, const std::function<void(std::size_t)> &work) {
    std::atomic<std::size_t> missing(count);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            for (--missing; missing > 0;)
                std::this_thread::yield();
            work(i);
        });
    for (std::thread &thread : threads)
        thread.join();
}

TEST(ThreadsTest, EveryFunctionMayBeTheFirstToBeCalled) {
    host_log_set_sink(countDecisions, nullptr);
    host_sim_set_manifest( // with an SDK version that makes every call fail
        "<manifest><ui-application appid='demo.app'><metadata value='1.0-alpha' "
        "key='http://developer.tizen.org/tizen/metadata/nelvo/sdk/version'/></ui-application>"
        "</manifest>");
    int (*const calls[])() = {
        nelvo_initialize,
        nelvo_deinitialize,
        [] { return nelvo_set_action_execution_cb("a", nullptr, nullptr); },
        [] { return nelvo_unset_action_execution_cb("a"); },
        [] { return nelvo_complete_action_execution(nullptr, ""); },
        [] { return nelvo_set_app_state_request_cb(nullptr, nullptr); },
        nelvo_unset_app_state_request_cb,
        [] { return nelvo_complete_app_state_request(nullptr, ""); },
        [] { return nelvo_get_action_name(nullptr, nullptr); },
    };
    std::vector<int> results(4 * std::size(calls));
    together(results.size(), [&](std::size_t i) { results[i] = calls[i % std::size(calls)](); });
    EXPECT_EQ(results[0], NELVO_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(decisions, 1);
}

template <typename Singleton>
void expectOne() {
    std::vector<Singleton *> seen(8);
    together(seen.size(), [&](std::size_t i) { seen[i] = Singleton::getInstance(); });
    EXPECT_EQ(seen, std::vector<Singleton *>(seen.size(), Singleton::getInstance()));
}

TEST(ThreadsTest, AllSeeTheSameSingletons) {
    expectOne<nelvo::NelvoCommonData>();
    expectOne<nelvo::StateRequestImpl>();
    expectOne<nelvo::ActionRequestImpl>();
}

TEST(ThreadsTest, EveryCallbackObjectHasASequenceNumberOfItsOwn) {
    std::vector<int> numbers(80000);
    together(8, [&](std::size_t thread) {
        for (std::size_t i = thread; i < numbers.size(); i += 8)
            numbers[i] = rpc_port::message::stub::message::CallbackBase(1, false).GetSeqId();
    });
    const std::set<int> distinct(numbers.begin(), numbers.end());
    EXPECT_EQ(*distinct.begin(), 0);
    EXPECT_EQ(distinct.size(), numbers.size());
}

} // namespace
