// SPDX-License-Identifier: Apache-2.0
// An application of the library and hostile clients, over real sockets and in virtual time.
// Whatever the clients do: the application lives, an honest client that is connected meanwhile gets
// each answer once, the next client is served, and no descriptor and no timer is left.
#include <algorithm>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <functional>
#include <optional>
#include <string>

#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <host/sim.h>
#include <nelvo.h>
#include <nelvo/testkit.h>

#include "raw_client.h"

namespace nelvo::testkit {
namespace {

using namespace wire;

// The limits of docs/host-platform.md.
constexpr std::uint32_t FRAME_LIMIT = 16 << 20;
constexpr std::size_t INCOMPLETE_LIMIT = 64;
constexpr double HANDSHAKE_SECONDS = 5;
constexpr std::size_t CONNECTION_LIMIT = 4096;
constexpr int SPARE_DESCRIPTORS = 32;

rlim_t setDescriptorLimit(rlim_t count) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min(count, limit.rlim_max);
    setrlimit(RLIMIT_NOFILE, &limit);
    return limit.rlim_cur;
}

// A descriptor that is left open makes it greater.
rlim_t firstFreeDescriptor() {
    const int fd = dup(0);
    close(fd);
    return static_cast<rlim_t>(fd);
}

long pagesOfMemory() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages;
}

// Serves on a real socket as long as the process lives: virtual time cannot be left again.
struct Application {
    Application() {
        setenv("NELVO_HOST_RUNTIME_DIR", mkdtemp(folder), 1);
        path = std::string(folder) + "/demo.app:message";
        host_sim_set_manifest("<manifest><ui-application appid=\"demo.app\"><metadata key="
                              "\"http://developer.tizen.org/tizen/metadata/nelvo/sdk/version\" "
                              "value=\"1.0\"/></ui-application></manifest>");
        EXPECT_EQ(nelvo_initialize(), NELVO_ERROR_NONE);
        device.emplace("demo.app");
        const auto greet = [](void *handler, bundle *request, void *count) {
            char *name = nullptr;
            ++*static_cast<int *>(count);
            if (bundle_get_str(request, "actionParams", &name) != BUNDLE_ERROR_NONE)
                name = nullptr;
            const std::string greeting = "Hello, " + std::string(name ? name : "") + "!";
            nelvo_complete_action_execution(handler, greeting.c_str());
        };
        nelvo_set_action_execution_cb("greet", greet, &calls);
    }
    ~Application() {
        nelvo_deinitialize();
        EXPECT_EQ(std::system(("rm -r " + std::string(folder)).c_str()), 0);
    }

    const rlim_t descriptors = setDescriptorLimit(RLIM_INFINITY); // for the clients' sockets
    char folder[20] = "hostile-XXXXXX";
    std::string path;
    int calls = 0; // of its callback
    std::optional<Simulation> device;
};

Application &app() {
    static Application application;
    return application;
}

void pass(double seconds = 0) {
    app().device->advance(seconds);
    app().device->clearLog();
}

// The names in the application's answers, each with the "!" behind it.
std::string greeted(RawSocket &callback) {
    const std::string &heard = callback.heard(), start = "Hello, ";
    std::string names;
    for (std::size_t at = 0; (at = heard.find(start, at)) != std::string::npos;) {
        at += start.size();
        names += heard.substr(at, heard.find('!', at) + 1 - at);
    }
    return names;
}

// A client that registers and asks for an action. All that it says is one text, which a test may
// change: the bytes of the callback channel, then those of the main channel.
struct Session {
    explicit Session(const std::string &name = "Ann") : bytes(hello(CALLBACK, name, name)) {
        mainStart = bytes.size();
        bytes += hello(MAIN, name, name);
        hellosEnd = bytes.size();
        bytes += setCb();
        requestStart = bytes.size();
        bytes += request("greet", name);
    }
    void say(std::size_t from, std::size_t to) const {
        const std::size_t middle = std::clamp(mainStart, from, to);
        callback.say(std::string_view(bytes).substr(from, middle - from));
        main.say(std::string_view(bytes).substr(middle, to - middle));
    }
    // Asks again, after the first time. The same answer must come each time, and nothing else.
    void ask() {
        say(answer.empty() ? 0 : requestStart, bytes.size());
        pass();
        const std::string &heard = callback.heard();
        answer = answer.empty() ? heard : answer;
        EXPECT_NE(answer, "");
        EXPECT_TRUE(heard == (wanted += answer));
    }

    std::string bytes, answer, wanted;
    std::size_t mainStart, hellosEnd, requestStart;
    RawSocket callback{app().path}, main{app().path};
};

class HostileTest : public testing::Test {
protected:
    // A socket on which these bytes have been sent.
    RawSocket &open(const std::string &bytes = "") {
        while (!sockets.emplace_back(app().path).isConnected()) {
            sockets.pop_back(); // the queue for new clients is full
            pass();
        }
        say(sockets.back(), bytes);
        return sockets.back();
    }
    // Both channels of a connection. Returns the main one.
    RawSocket &connect() {
        const std::string token = std::to_string(sockets.size());
        open(hello(CALLBACK, token, "mallory"));
        return open(hello(MAIN, token, "mallory"));
    }
    // Sends every byte, as long as the connection lasts.
    static void say(RawSocket &socket, std::string_view bytes) {
        do {
            bytes.remove_prefix(socket.say(bytes));
            pass();
        } while (!bytes.empty() && !socket.hasEnded());
    }
    static void askHonestly() {
        static Session client("honest");
        client.ask();
    }
    static bool stays(RawSocket &socket) {
        askHonestly();
        return !socket.hasEnded();
    }

    // Plays one attack, whose sockets stay open until it is over.
    void play(const std::string &what, const std::function<void()> &attack) {
        SCOPED_TRACE(what);
        askHonestly();
        const rlim_t before = firstFreeDescriptor();
        attack();
        askHonestly();
        sockets.clear();
        pass(HANDSHAKE_SECONDS + 0.1);
        Session("next").ask();
        pass(31); // a request and its time-out
        EXPECT_EQ(firstFreeDescriptor(), before);
        EXPECT_EQ(host_sim_timer_count(), 0);
    }

    // What is said on two sockets, how many of them are still open when the time for the handshake
    // is nearly over, and when it is over, and whom the application has greeted.
    struct Attack {
        std::string what, first, second;
        int openBefore, openAfter;
        std::string greets = "";
    };
    void play(const Attack &attack) {
        play(attack.what, [&] {
            RawSocket &first = open(attack.first), &second = open(attack.second);
            pass(HANDSHAKE_SECONDS - 0.1);
            EXPECT_EQ(stays(first) + stays(second), attack.openBefore);
            pass(0.1);
            EXPECT_EQ(stays(first) + stays(second), attack.openAfter);
            EXPECT_EQ(greeted(first) + greeted(second), attack.greets);
        });
    }

    const std::string main = hello(MAIN, "", "mallory"), callback = hello(CALLBACK, "", "mallory");
    std::deque<RawSocket> sockets;
};

TEST_F(HostileTest, MayBreakTheHandshake) {
    const std::string early = main + setCb() + request("greet", "early"), most(127, 'a');
    const Attack attacks[] = {
        {"nothing", "", "", 2, 0},
        {"a part of a hello", main.substr(0, 9), "", 2, 0},
        {"one half", callback, "", 2, 0},
        {"a request before the other half", early, "", 2, 0},
        {"a request before the other half, which comes", early, callback, 2, 2, "early!"},
        {"two main channels", main, main, 1, 0},
        {"halves of two senders", hello(CALLBACK, "", "other"), main, 1, 0},
        {"halves that do not belong together", hello(CALLBACK, "x", "mallory"), main, 2, 0},
        {"a callback channel that goes on", main, callback + "x", 0, 0},
        {"a third channel", hello(2, "", "mallory"), hello(2, "x", "mallory"), 0, 0},
        {"frames that are no hello", frame("hello"), frame(""), 0, 0},
        {"frames longer than any hello", number(FRAME_LIMIT), number(~0U), 0, 0},
        {"the longest name", hello(MAIN, "", most), hello(CALLBACK, "", most), 2, 2},
        {"the honest client's name", hello(MAIN, "", "honest"), hello(CALLBACK, "", "honest"), 2,
         2},
    };
    for (const Attack &attack : attacks)
        play(attack);
    for (const std::string &name : {std::string(), std::string("../a"), std::string("a\nb"),
                                    std::string("\xff"), std::string("a\0b", 3), most + "a"})
        play({"named \"" + name + "\"", hello(MAIN, "", name), hello(CALLBACK, "", name), 0, 0});
    play("memory for frames that do not come", [&] {
        const long before = pagesOfMemory();
        for (int i = 0; i < 40; ++i)
            say(connect(), number(FRAME_LIMIT) + "only this");
        EXPECT_LT((pagesOfMemory() - before) * sysconf(_SC_PAGESIZE), 100 << 20);
    });
    play("a callback channel that goes on later", [&] {
        connect();
        say(sockets.front(), frame(""));
        EXPECT_TRUE(sockets.back().hasEnded());
    });
}

TEST_F(HostileTest, MayBeMany) {
    play("silent connections", [&] {
        for (std::size_t i = 0; i < 4 * INCOMPLETE_LIMIT; ++i)
            open();
        const auto isOpen = [](RawSocket &socket) { return !socket.hasEnded(); };
        EXPECT_EQ(std::count_if(sockets.begin(), sockets.end(), isOpen), INCOMPLETE_LIMIT);
        EXPECT_TRUE(isOpen(sockets.back())) << "the oldest ones are closed";
    });
    play("more connections than are taken", [&] {
        std::size_t taken = 0;
        while (taken <= CONNECTION_LIMIT && !connect().hasEnded())
            ++taken;
        const bool hasRoom = app().descriptors > 4 * CONNECTION_LIMIT + 100;
        EXPECT_TRUE(taken == CONNECTION_LIMIT - 1 || (!hasRoom && taken < CONNECTION_LIMIT))
            << taken << " beside the honest one";
    });
    play("a burst of requests", [&] {
        std::string requests;
        for (int i = 0; i < 10'000; ++i)
            requests += request("greet", "Mallory");
        say(connect(), setCb() + requests);
        EXPECT_TRUE(stays(sockets.back()));
    });
    // The stranger is not on the allow list, which cannot be opened any more.
    play("all descriptors", [&] {
        app().device->setAllowList("honest\n");
        RawSocket &stranger = connect();
        for (int i = 0; i < 200; ++i)
            sockets.emplace_back(app().path);
        const rlim_t free = firstFreeDescriptor();
        setDescriptorLimit(free);
        pass(1); // would never return if the loop was busy
        EXPECT_FALSE(sockets.back().hasEnded()) << "it waits to be accepted";
        setDescriptorLimit(free + SPARE_DESCRIPTORS + 8);
        pass(0.2);
        EXPECT_TRUE(sockets.back().hasEnded()) << "there are no descriptors to spare";
        const int calls = app().calls;
        say(stranger, request("greet", "Mallory"));
        EXPECT_EQ(app().calls, calls);
        askHonestly();
        setDescriptorLimit(app().descriptors);
        app().device->removeAllowList();
    });
}

// ParcelTest knows more ways to damage a bundle.
TEST_F(HostileTest, MaySendAnyParcel) {
    const std::string good =
        entry(TEXT, "actionId", text("greet")) + entry(TEXT, "actionParams", text("world"));
    const auto extended = [&](std::uint32_t count, const std::string &more) {
        return method(4, bundleOf(2 + count, good + more));
    };
    std::string entries;
    for (int i = 0; i < 100'000; ++i)
        entries += entry(TEXT, "k" + std::to_string(i), text("v"));
    const struct {
        const char *what;
        std::string parcel;
        int open;                // of the connection's two sockets
        std::string greets = ""; // a good request follows the parcel
    } rows[] = {
        {"an unknown method", method(5, bundleOf(0, "")), 0},
        {"a negative method", method(-1, bundleOf(0, "")), 0},
        {"an empty frame", frame(""), 0},
        {"the longest frame", frame(std::string(FRAME_LIMIT, 'x')), 0},
        {"a longer frame", number(FRAME_LIMIT + 1), 0},
        {"a frame that does not end", number(FRAME_LIMIT), 2},
        {"no bundle", method(4, ""), 2, "Mallory!"},
        {"no entry", method(4, bundleOf(0, "")), 2, "Mallory!"},
        {"an endless text", extended(1, entry(TEXT, "k", number(~0U) + "v")), 2, "Mallory!"},
        {"a key twice", extended(2, good), 2, "Mallory!"},
        {"type 255", extended(1, entry('\xff', "k", text("v"))), 2, "Mallory!"},
        {"a short request id", extended(1, entry(BYTES, "requestId", frame("7 bytes"))), 2,
         "Mallory!"},
        {"a text as request id", extended(1, entry(TEXT, "requestId", text("7 bytes"))), 2,
         "Mallory!"},
        {"texts as action id",
         method(4, bundleOf(1, entry(TEXTS, "actionId", number(1) + text("greet")))), 2,
         "Mallory!"},
        {"endless entries", method(4, bundleOf(~0U, good)), 2, "Mallory!"},
        {"fewer entries than it says", extended(1, ""), 2, "Mallory!"},
        {"fewer bytes than it says", method(4, number(1 << 20) + number(2) + good), 2, "Mallory!"},
        {"100000 keys", extended(100'000, entries), 2, "world!Mallory!"},
        {"a format", request("greet", "%n%s%p"), 2, "%n%s%p!Mallory!"},
        {"not UTF-8", request("greet", "\xff\xc0\x80"), 2, "\xff\xc0\x80!Mallory!"},
        {"orders to a terminal", request("\x1b[2J", "") + request("greet", "\x1b[2J\n"), 2,
         "\x1b[2J\n!Mallory!"},
    };
    const std::string start = main + setCb(), next = request("greet", "Mallory");
    for (const auto &row : rows)
        play({row.what, callback, start + row.parcel + next, row.open, row.open, row.greets});
}

TEST_F(HostileTest, MayEndASessionAtAnyByte) {
    enum Way { PAUSE, BOTH_ENDS_UNREAD, ONE_END };
    const auto end = [](Way way, std::size_t at) {
        Session session;
        session.say(0, std::min(at, session.hellosEnd));
        pass();
        session.say(std::min(at, session.hellosEnd), at);
        if (way == BOTH_ENDS_UNREAD)
            return;
        pass(way == PAUSE ? HANDSHAKE_SECONDS - 0.1 : 0);
        if (way == ONE_END) {
            (at > session.mainStart ? session.main : session.callback).endSpeech();
            pass(HANDSHAKE_SECONDS + 0.1);
            EXPECT_TRUE(session.main.hasEnded() && session.callback.hasEnded());
            return;
        }
        if (at >= session.mainStart && at < session.bytes.size())
            session.main.passDescriptor(session.bytes[at++]);
        session.say(at, session.bytes.size());
        pass();
        EXPECT_EQ(greeted(session.callback), "Ann!");
    };
    const std::size_t size = Session().bytes.size();
    for (const Way way : {PAUSE, BOTH_ENDS_UNREAD, ONE_END})
        for (std::size_t at = 1; at <= size && !HasFailure(); ++at)
            play("way " + std::to_string(way) + " at byte " + std::to_string(at), [&] {
                const int before = app().calls;
                end(way, at);
                pass();
                EXPECT_EQ(app().calls - before, way == PAUSE || at == size ? 1 : 0);
            });
}

TEST_F(HostileTest, MayFlipAnyBit) {
    const std::size_t size = Session().bytes.size(), hellosEnd = Session().hellosEnd;
    for (std::size_t bit = 0; bit < 8 * size && !HasFailure(); ++bit)
        play("bit " + std::to_string(bit), [&] {
            const int before = app().calls;
            {
                Session session;
                char &byte = session.bytes[bit / 8];
                byte = static_cast<char>(byte ^ 1 << bit % 8);
                session.say(0, size);
                pass();
            }
            pass();
            EXPECT_TRUE(bit / 8 >= hellosEnd || app().calls == before);
        });
}

} // namespace
} // namespace nelvo::testkit
