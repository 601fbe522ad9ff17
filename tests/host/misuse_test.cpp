// SPDX-License-Identifier: Apache-2.0
// What an application does wrong is said: one error line without the test kit, the end of the process with
// it. The address sanitizer ends the process itself where freed memory is used.
#include <Ecore.h>
#include <bundle.h>
#include <rpc-port.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <nelvo/testkit.h>

namespace {

#ifdef __SANITIZE_ADDRESS__
constexpr bool HAS_SANITIZER = true;
#elif defined(__has_feature)
constexpr bool HAS_SANITIZER = __has_feature(address_sanitizer);
#else
constexpr bool HAS_SANITIZER = false;
#endif

bundle *freedBundle() {
    bundle *const freed = bundle_create();
    bundle_add_str(freed, "k", "v");
    bundle_free(freed);
    return freed;
}

rpc_port_parcel_h destroyedParcel() {
    rpc_port_parcel_h parcel = nullptr;
    rpc_port_parcel_create(&parcel);
    rpc_port_parcel_destroy(parcel);
    return parcel;
}

template <typename Call>
void callOnAnotherThread(Call call) {
    std::thread(call).join();
}

Ecore_Timer *addTimer() {
    return ecore_timer_add(
        1, [](void *) { return ECORE_CALLBACK_CANCEL; }, nullptr);
}

void freeTwice() {
    bundle_free(freedBundle());
}
void readFreed() {
    char *text = nullptr;
    bundle_get_str(freedBundle(), "k", &text);
}
void addToFreed() {
    bundle_add_str(freedBundle(), "l", "v");
}
void copyFreed() {
    bundle_dup(freedBundle());
}
void freeInsideForeach() {
    bundle *const b = bundle_create();
    bundle_add_str(b, "k", "v");
    const auto release = [](const char *, const int, const bundle_keyval_t *, void *itself) {
        bundle_free(static_cast<bundle *>(itself));
    };
    bundle_foreach(b, release, b);
    if (bundle_get_count(b) != 1 || bundle_free(b) != BUNDLE_ERROR_NONE) // can be freed afterwards
        std::abort();
}
void destroyTwice() {
    rpc_port_parcel_destroy(destroyedParcel());
}
void readDestroyed() {
    int number = 0;
    rpc_port_parcel_read_int32(destroyedParcel(), &number);
}
void sendOnAnotherThread() {
    callOnAnotherThread([] {
        rpc_port_parcel_h parcel = nullptr;
        rpc_port_parcel_create(&parcel);
        rpc_port_parcel_send(parcel, nullptr);
        rpc_port_parcel_destroy(parcel);
    });
}
void listenOnAnotherThread() {
    rpc_port_stub_h stub = nullptr;
    rpc_port_stub_create(&stub, "message");
    callOnAnotherThread([stub] { rpc_port_stub_listen(stub); });
    rpc_port_stub_destroy(stub);
}
void addTimerOnAnotherThread() {
    callOnAnotherThread(addTimer);
}
void deleteTimerTwice() {
    Ecore_Timer *const timer = addTimer();
    ecore_timer_del(timer);
    ecore_timer_del(timer);
}
void beginInsideBegin() {
    const auto nest = [](void *) {
        ecore_main_loop_quit();
        ecore_main_loop_begin();
        ecore_main_loop_quit();
        return ECORE_CALLBACK_CANCEL;
    };
    ecore_timer_add(0, nest, nullptr);
    ecore_main_loop_begin();
}

struct Misuse {
    const char *name;
    void (*deed)();
    const char *sentence;
    bool usesFreedMemory = false;
};

void PrintTo(const Misuse &misuse, std::ostream *to) {
    *to << misuse.name;
}

class MisuseTest : public testing::TestWithParam<Misuse> {
protected:
    static void runDeed() {
        ecore_init();
        GetParam().deed();
        std::_Exit(0);
    }
};

TEST_P(MisuseTest, IsSaidInOneLineAndEndsTests) {
    const Misuse &misuse = GetParam();
    if (HAS_SANITIZER && misuse.usesFreedMemory) {
        EXPECT_DEATH(runDeed(), "heap-use-after-free");
        return;
    }
    EXPECT_EXIT(runDeed(), testing::ExitedWithCode(0), misuse.sentence) << "goes on";
    const auto runUnderKit = [] {
        const nelvo::testkit::Simulation simulation("demo.wrong");
        runDeed();
    };
    EXPECT_EXIT(runUnderKit(), testing::KilledBySignal(SIGABRT),
                std::string("nelvo test kit: ") + misuse.sentence);
}

INSTANTIATE_TEST_SUITE_P(
    Of, MisuseTest,
    testing::Values(
        Misuse{"FreeTwice", freeTwice, "bundle_free\\(\\): the bundle has been freed", true},
        Misuse{"ReadFreed", readFreed, "bundle_get_str\\(\\): the bundle has been freed", true},
        Misuse{"AddToFreed", addToFreed, "bundle_add_str\\(\\): the bundle has been freed", true},
        Misuse{"CopyFreed", copyFreed, "bundle_dup\\(\\): the bundle has been freed", true},
        Misuse{"FreeInsideForeach", freeInsideForeach,
               "bundle_free\\(\\) is called inside bundle_foreach\\(\\)"},
        Misuse{"DestroyTwice", destroyTwice,
               "rpc_port_parcel_destroy\\(\\): the parcel has been freed", true},
        Misuse{"ReadDestroyed", readDestroyed,
               "rpc_port_parcel_read_int32\\(\\): the parcel has been freed", true},
        Misuse{"SendOnAnotherThread", sendOnAnotherThread,
               "rpc_port_parcel_send\\(\\) is called on another thread"},
        Misuse{"ListenOnAnotherThread", listenOnAnotherThread,
               "rpc_port_stub_listen\\(\\) is called on another thread"},
        Misuse{"AddTimerOnAnotherThread", addTimerOnAnotherThread,
               "ecore_timer_add\\(\\) is called on another thread"},
        Misuse{"DeleteTimerTwice", deleteTimerTwice,
               "ecore_timer_del\\(\\): there is no such timer"},
        Misuse{"BeginInsideBegin", beginInsideBegin,
               "ecore_main_loop_begin\\(\\) is called inside itself"}),
    [](const auto &row) { return row.param.name; });

TEST(MisuseTest, OfAnEndedLoopClosesThePortAndIsSaid) {
    const auto endLoop = [] {
        setenv("NELVO_HOST_APP_ID", "demo.deaf", 1);
        setenv("NELVO_HOST_RUNTIME_DIR", "run", 1);
        rpc_port_stub_h stub = nullptr;
        rpc_port_stub_create(&stub, "message");
        rpc_port_stub_listen(stub);
        ecore_init();
        ecore_shutdown();
        std::_Exit(rpc_port_stub_destroy(stub));
    };
    EXPECT_EXIT(endLoop(), testing::ExitedWithCode(0),
                "rpc_port_stub_listen\\(\\) is called before ecore_init\\(\\)(.|\n)*"
                "ecore_shutdown\\(\\) has ended the main loop that serves port \"message\"");
}

} // namespace
