// SPDX-License-Identifier: Apache-2.0
// An application of the library and hostile clients, over real sockets and in virtual time.
// Whatever the clients do: the application lives, an honest client that is connected meanwhile gets
// each answer once, the next client is served, and no descriptor and no timer is left.
#include <algorithm>
#include <cstdlib>
#include <deque>
#include <functional>
#include <optional>
#include <regex>
#include <sstream>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <host/log.h>
#include <host/sim.h>
#include <nelvo.h>
#include <nelvo/testkit.h>

#include "child.h"
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

const std::string FORGERY = "\r\x1b[2J\x07\x9b\nE FORGED: line";

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

bool hears(RawSocket &socket, const std::string &text) {
    return socket.heard().find(text) != std::string::npos;
}

class HonestClient {
public:
    explicit HonestClient(std::string name) : _name(std::move(name)) {
        const std::string token = freshToken();
        _callback.say(hello(CALLBACK, token, _name));
        _main.say(hello(MAIN, token, _name) + setCb());
        ask();
        EXPECT_TRUE(hears(_callback, "Hello, " + _name + "!"));
    }
    // The same answer must come each time, and nothing else.
    void ask() {
        _main.say(request("greet", _name));
        pass();
        const std::string &heard = _callback.heard();
        _answer = _answer.empty() ? heard : _answer;
        EXPECT_TRUE(heard == (_wanted += _answer)) << _name << " is not served";
    }

private:
    const std::string _name;
    RawSocket _callback{app().path}, _main{app().path};
    std::string _answer, _wanted;
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
    // Both channels of a connection. Returns the main one; in `sockets` it is behind the other.
    RawSocket &connect(const std::string &sender = "mallory") {
        const std::string token = freshToken();
        open(hello(CALLBACK, token, sender));
        return open(hello(MAIN, token, sender));
    }
    // Sends every byte, as long as the connection lasts.
    static void say(RawSocket &socket, std::string_view bytes) {
        do {
            bytes.remove_prefix(socket.say(bytes));
            pass();
        } while (!bytes.empty() && !socket.hasEnded());
    }
    static void askHonestly() {
        static HonestClient client("honest");
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
        HonestClient("next");
        pass(31); // a request and its time-out
        EXPECT_EQ(firstFreeDescriptor(), before);
        EXPECT_EQ(host_sim_timer_count(), 0);
    }

    std::deque<RawSocket> sockets;
};

TEST_F(HostileTest, MaySayAnyLength) {
    for (const std::uint32_t length : {0U, 1U, FRAME_LIMIT, FRAME_LIMIT + 1, 1U << 31, ~0U})
        play("length " + std::to_string(length), [&] {
            const bool isPossible = length > 0 && length <= FRAME_LIMIT;
            RawSocket &fresh = open(number(length) + (length == 1 ? "x" : ""));
            EXPECT_TRUE(fresh.hasEnded()) << "before the hello";
            RawSocket &main = connect();
            say(main, number(length));
            EXPECT_EQ(stays(main), isPossible) << "on the main channel";
            if (isPossible)
                say(main, std::string(length, 'x'));
            EXPECT_TRUE(main.hasEnded()) << "a parcel of the letter x";
            RawSocket &other = connect();
            say(sockets[sockets.size() - 2], number(length));
            EXPECT_TRUE(other.hasEnded()) << "on the callback channel";
        });
}

// Two sockets, what is said on each, and how many of the two are still open when the time for the
// handshake is nearly over, and when it is over.
TEST_F(HostileTest, MayBreakTheHandshake) {
    const std::string token = freshToken(), main = hello(MAIN, token), most(127, 'a');
    const std::string callback = hello(CALLBACK, token), early = request("greet", "too early");
    const struct {
        const char *what;
        std::string first, second;
        int before, after;
    } rows[] = {
        {"nothing", "", "", 2, 0},
        {"a part of a hello", main.substr(0, 9), "", 2, 0},
        {"one half", callback, "", 2, 0},
        {"a request before the other half", main + early, "", 2, 0},
        {"a request before the other half, which comes", main + early, callback, 2, 2},
        {"two main channels", main, main, 1, 0},
        {"halves of two senders", hello(CALLBACK, token, "other"), main, 1, 0},
        {"halves that do not belong together", hello(CALLBACK, "x"), main, 2, 0},
        {"a callback channel that goes on", main, callback + "x", 0, 0},
        {"a text that is no hello", frame("hello"), frame("hello"), 0, 0},
        {"the longest name", hello(MAIN, token, most), hello(CALLBACK, token, most), 2, 2},
        {"the honest client's name", hello(MAIN, token, "honest"), hello(CALLBACK, token, "honest"),
         2, 2},
    };
    for (const auto &row : rows)
        play(row.what, [&] {
            RawSocket &first = open(row.first), &second = open(row.second);
            pass(HANDSHAKE_SECONDS - 0.1);
            EXPECT_EQ(stays(first) + stays(second), row.before);
            pass(0.1);
            EXPECT_EQ(stays(first) + stays(second), row.after);
        });
    for (const std::string &name :
         {std::string(), std::string(".."), std::string("../a"), std::string("-a"),
          std::string("a\nb"), std::string("\xff"), std::string("a\0b", 3), most + "a"})
        play("named \"" + name + "\"", [&] {
            EXPECT_TRUE(open(hello(MAIN, token, name)).hasEnded());
            EXPECT_TRUE(open(hello(CALLBACK, token, name)).hasEnded());
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
    const std::string most = number(~0U);
    const auto counted = [&](std::uint32_t count, const std::string &more) {
        return method(4, frame(number(count + 2) + good + more)); // good is two entries
    };
    std::string entries;
    for (int i = 0; i < 100'000; ++i)
        entries += entry(TEXT, "k" + std::to_string(i), text("v"));
    const struct {
        const char *what;
        std::string parcel;
        const char *answer = ""; // empty: the connection stays, and the next request is answered
    } rows[] = {
        {"an unknown method", method(5, bundleOf({})), "(ended)"},
        {"a negative method", method(-1, bundleOf({})), "(ended)"},
        {"an empty frame", frame(""), "(ended)"},
        {"no bundle", method(4)},
        {"no entry", method(4, bundleOf({}))},
        {"an endless text", method(4, bundleOf({entry(TEXT, "actionId", most + "greet")}))},
        {"a key twice", counted(2, good)},
        {"type 255", counted(1, entry('\xff', "k", text("v")))},
        {"a request id of 7 bytes", counted(1, entry(BYTES, "requestId", frame("1234567")))},
        {"a request id that is a text", counted(1, entry(TEXT, "requestId", text("1234567")))},
        {"an action id of texts",
         method(4, bundleOf({entry(TEXTS, "actionId", number(1) + text("greet"))}))},
        {"entries without number", method(4, frame(most + good))},
        {"fewer entries than it says", counted(1, "")},
        {"more bytes than there are", method(4, number(1 << 20) + number(2) + good)},
        {"100000 keys", counted(100'000, entries), "Hello, world!"},
        {"a format", request("greet", "%n%n%s%s%p"), "Hello, %n%n%s%s%p!"},
        {"not UTF-8", request("greet", "\xff\xc0\x80"), "Hello, \xff\xc0\x80!"},
        {"orders to a terminal", request(FORGERY) + request("greet", FORGERY), "FORGED: line!"},
    };
    for (const auto &row : rows)
        play(row.what, [&] {
            const bool ends = row.answer == std::string("(ended)");
            say(connect(), setCb() + row.parcel + (*row.answer ? "" : request("greet", "Mallory")));
            EXPECT_EQ(sockets.back().hasEnded(), ends);
            EXPECT_TRUE(ends || hears(sockets[0], *row.answer ? row.answer : "Hello, Mallory!"));
            EXPECT_TRUE(*row.answer || !hears(sockets[0], "world")) << "it was carried out";
        });
}

// The log as it is written, once no simulation collects it.
TEST_F(HostileTest, CannotForgeTheLog) {
    Child child([&] {
        setenv("NELVO_LOG", "verbose", 1);
        app();
        host_log_set_sink(nullptr, nullptr);
        open(hello(MAIN, freshToken(), FORGERY));
        say(connect(), method(9, text(FORGERY)));
        say(connect(), setCb() + request(FORGERY) + request("greet", FORGERY));
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
    const std::regex entry("[VDIWEF] [A-Z_-]+: [ -~]*");
    std::istringstream log(child.err());
    for (std::string line; std::getline(log, line);)
        EXPECT_TRUE(std::regex_match(line, entry)) << line;
    EXPECT_NE(child.err().find("FORGED"), std::string::npos);
}

// A whole session in one text, which each test changes: the bytes of the callback channel, then
// those of the main channel.
struct Session {
    Session() {
        const std::string token = freshToken();
        bytes = hello(CALLBACK, token);
        mainStart = bytes.size();
        bytes += hello(MAIN, token);
        hellosEnd = bytes.size();
        bytes += setCb() + request("greet", "Ann");
    }
    void say(std::size_t from, std::size_t to) const {
        const std::size_t middle = std::clamp(mainStart, from, to);
        callback.say(std::string_view(bytes).substr(from, middle - from));
        main.say(std::string_view(bytes).substr(middle, to - middle));
    }

    std::string bytes;
    std::size_t mainStart, hellosEnd;
    RawSocket callback{app().path}, main{app().path};
};

TEST_F(HostileTest, MayEndASessionAtAnyByte) {
    enum Way { PAUSE, DESCRIPTOR, BOTH_ENDS_UNREAD, ONE_END };
    const auto end = [](Way way, std::size_t at) {
        Session session;
        session.say(0, std::min(at, session.hellosEnd));
        pass();
        session.say(std::min(at, session.hellosEnd), at);
        if (way == BOTH_ENDS_UNREAD)
            return;
        pass();
        if (way == ONE_END) {
            (at > session.mainStart ? session.main : session.callback).endSpeech();
            pass(HANDSHAKE_SECONDS + 0.1);
            EXPECT_TRUE(session.main.hasEnded() && session.callback.hasEnded());
            return;
        }
        pass(HANDSHAKE_SECONDS - 0.1);
        if (way == DESCRIPTOR && at >= session.hellosEnd && at < session.bytes.size())
            session.main.passDescriptor({&session.bytes[at++], 1});
        session.say(at, session.bytes.size());
        pass();
        EXPECT_TRUE(hears(session.callback, "Hello, Ann!"));
    };
    const std::size_t size = Session().bytes.size();
    for (const Way way : {PAUSE, DESCRIPTOR, BOTH_ENDS_UNREAD, ONE_END})
        for (std::size_t at = 1; at <= size && !HasFailure(); ++at)
            play("way " + std::to_string(way) + " at byte " + std::to_string(at), [&] {
                const int before = app().calls;
                end(way, at);
                pass();
                const bool isWhole = way == PAUSE || way == DESCRIPTOR || at == size;
                EXPECT_EQ(app().calls - before, isWhole ? 1 : 0);
            });
}

TEST_F(HostileTest, MayFlipAnyBit) {
    for (std::size_t bit = 0; bit < 8 * Session().bytes.size() && !HasFailure(); ++bit)
        play("bit " + std::to_string(bit), [&] {
            std::optional<Session> session(std::in_place);
            const std::size_t hellosEnd = session->hellosEnd;
            char &byte = session->bytes[bit / 8];
            byte = static_cast<char>(byte ^ 1 << bit % 8);
            const int before = app().calls;
            session->say(0, session->bytes.size());
            pass();
            session.reset();
            pass();
            EXPECT_TRUE(bit / 8 >= hellosEnd || app().calls == before);
        });
}

} // namespace
} // namespace nelvo::testkit
