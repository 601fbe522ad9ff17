// SPDX-License-Identifier: Apache-2.0
// An application of the library and hostile clients, over real sockets and in virtual time.
// Whatever the clients do: the application lives, an honest client that is connected meanwhile gets
// each answer once, the next client is served, and no descriptor and no timer is left.
#include <algorithm>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
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
constexpr double MORE_THAN_A_REQUEST = 31;

rlimit descriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return limit;
}

void setDescriptorLimit(rlim_t count) {
    const rlimit limit{count, descriptorLimit().rlim_max};
    setrlimit(RLIMIT_NOFILE, &limit);
}

// A descriptor that is left open makes it greater.
int firstFreeDescriptor() {
    const int fd = dup(0);
    close(fd);
    return fd;
}

long memoryKiB() {
    long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

// Serves on a real socket as long as the process lives: virtual time cannot be left again.
struct Application {
    Application() {
        setDescriptorLimit(descriptorLimit().rlim_max); // for the clients' sockets
        setenv("NELVO_HOST_RUNTIME_DIR", mkdtemp(folder), 1);
        path = std::string(folder) + "/demo.app:message";
        unsetenv("NELVO_HOST_APP_ID");
        unsetenv("NELVO_HOST_MANIFEST");
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
            nelvo_complete_action_execution(
                handler, ("Hello, " + std::string(name ? name : "") + "!").c_str());
        };
        nelvo_set_action_execution_cb("greet", greet, &calls);
    }
    ~Application() {
        nelvo_deinitialize();
        std::filesystem::remove_all(folder);
    }

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

struct Pair {
    RawSocket callback{app().path}, main{app().path};
};

class HonestClient {
public:
    explicit HonestClient(std::string name) : _name(std::move(name)) {
        const std::string token = freshToken();
        _sockets.callback.say(hello(CALLBACK, token, _name));
        _sockets.main.say(hello(MAIN, token, _name) + setCb());
        ask();
        EXPECT_TRUE(hears(_sockets.callback, "Hello, " + _name + "!"));
    }
    // The same answer must come each time, and nothing else.
    void ask() {
        _sockets.main.say(request("greet", _name));
        pass();
        const std::string &heard = _sockets.callback.heard();
        _answer = _answer.empty() ? heard : _answer;
        EXPECT_TRUE(heard == (_wanted += _answer)) << _name << " is not served";
    }

private:
    const std::string _name;
    Pair _sockets;
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
    // Every byte, as long as the connection lasts.
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
        const int before = firstFreeDescriptor();
        attack();
        askHonestly();
        sockets.clear();
        pass(HANDSHAKE_SECONDS + 0.1);
        HonestClient("next");
        pass(MORE_THAN_A_REQUEST);
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
    play("memory for frames that do not come", [&] {
        const long before = memoryKiB();
        for (int i = 0; i < 40; ++i)
            say(connect(), number(FRAME_LIMIT) + "only this");
        EXPECT_LT(memoryKiB() - before, 100'000);
    });
}

TEST_F(HostileTest, MayBeSlow) {
    const std::string incomplete[] = {"", hello(MAIN, freshToken()).substr(0, 9),
                                      hello(CALLBACK, freshToken()),
                                      hello(MAIN, freshToken()) + request("greet", "too early")};
    for (const std::string &bytes : incomplete)
        play("only " + std::to_string(bytes.size()) + " bytes", [&] {
            RawSocket &socket = open(bytes.substr(0, bytes.size() / 2));
            pass(HANDSHAKE_SECONDS - 0.1);
            say(socket, bytes.substr(bytes.size() / 2));
            EXPECT_TRUE(stays(socket));
            pass(0.1);
            EXPECT_TRUE(socket.hasEnded());
        });
}

TEST_F(HostileTest, MayBeMany) {
    play("silent connections", [&] {
        const rlim_t count = std::min<rlim_t>(3000, descriptorLimit().rlim_cur / 2);
        for (rlim_t i = 0; i < count; ++i)
            open();
        const auto isOpen = [](RawSocket &socket) { return !socket.hasEnded(); };
        EXPECT_EQ(std::count_if(sockets.begin(), sockets.end(), isOpen), INCOMPLETE_LIMIT);
        EXPECT_TRUE(isOpen(sockets.back())) << "the oldest ones go";
    });
    play("more connections than are taken", [&] {
        std::size_t taken = 0;
        while (taken <= CONNECTION_LIMIT && !connect().hasEnded())
            ++taken;
        const bool hasRoom = descriptorLimit().rlim_cur > 4 * CONNECTION_LIMIT + 100;
        EXPECT_TRUE(taken == CONNECTION_LIMIT - 1 || (!hasRoom && taken < CONNECTION_LIMIT))
            << taken << " beside the honest one";
    });
    play("a burst of requests", [&] {
        say(connect(), setCb());
        std::string requests;
        for (int i = 0; i < 1000; ++i)
            requests += request("greet", "Mallory");
        for (int i = 0; i < 10; ++i) {
            say(sockets.back(), requests);
            EXPECT_TRUE(stays(sockets.back()));
        }
    });
    // The stranger is not on the allow list, which cannot be opened any more.
    play("all descriptors", [&] {
        app().device->setAllowList("honest\n");
        RawSocket &stranger = connect();
        for (int i = 0; i < 200; ++i)
            sockets.emplace_back(app().path);
        const rlim_t before = descriptorLimit().rlim_cur;
        setDescriptorLimit(static_cast<rlim_t>(firstFreeDescriptor() + SPARE_DESCRIPTORS + 8));
        pass();
        EXPECT_TRUE(sockets.back().hasEnded());
        const int calls = app().calls;
        say(stranger, request("greet", "Mallory"));
        EXPECT_EQ(app().calls, calls);
        askHonestly();
        setDescriptorLimit(before);
        app().device->removeAllowList();
    });
}

TEST_F(HostileTest, MayHaveAnyName) {
    std::vector<std::string> names{"", "..", "../a", "-a", "a\nb", "a b", "\xff", "a:b"};
    names.emplace_back("a\0b", 3);
    names.emplace_back(128, 'a');
    names.emplace_back(255, 'a');
    for (const std::string &name : names)
        play("named \"" + name + "\"", [&] {
            EXPECT_TRUE(open(hello(MAIN, freshToken(), name)).hasEnded());
            EXPECT_TRUE(open(hello(CALLBACK, freshToken(), name)).hasEnded());
        });
    play("the longest name", [&] { EXPECT_TRUE(stays(connect(std::string(127, 'a')))); });
    play("the honest client's name", [&] {
        connect("honest");
        connect("honest").endSpeech();
    });
}

TEST_F(HostileTest, MaySendAnyMethod) {
    for (const int id : {0, 1, 5, 255, -1, 1 << 30, INT32_MIN, INT32_MAX})
        play("method " + std::to_string(id), [&] {
            say(connect(), method(id, bundleOf({})));
            EXPECT_TRUE(sockets.back().hasEnded());
        });
}

// ParcelTest knows more ways to damage a bundle.
TEST_F(HostileTest, MaySendAnyBundle) {
    const std::string good =
        entry(TEXT, "actionId", text("greet")) + entry(TEXT, "actionParams", text("world"));
    const std::string many = number(~0U);
    const auto counted = [&](std::uint32_t count, const std::string &more) {
        return frame(number(count + 2) + good + more); // good is two entries
    };
    const std::pair<const char *, std::string> rows[] = {
        {"nothing", ""},
        {"no entry", bundleOf({})},
        {"a text that never ends", bundleOf({entry(TEXT, "actionId", many + "greet")})},
        {"a key twice", counted(2, good)},
        {"type 255", counted(1, entry('\xff', "k", text("v")))},
        {"a request id of 7 bytes", counted(1, entry(BYTES, "requestId", frame("1234567")))},
        {"a request id that is a text", counted(1, entry(TEXT, "requestId", text("1234567")))},
        {"an action id of bytes",
         bundleOf({entry(BYTES, "actionId", frame(std::string("greet\0", 6)))})},
        {"an action id of texts", bundleOf({entry(TEXTS, "actionId", number(1) + text("greet"))})},
        {"entries without number", frame(many + good)},
        {"fewer entries than it says", counted(1, "")},
        {"more than there is", number(1 << 20) + number(2) + good},
    };
    for (const auto &[name, bytes] : rows)
        play(name, [&, bytes = bytes] {
            say(connect(), setCb() + method(4, bytes) + request("greet", "Mallory"));
            EXPECT_TRUE(hears(sockets[0], "Hello, Mallory!"));
            EXPECT_FALSE(hears(sockets[0], "world")) << "it was carried out";
        });
    play("100000 keys", [&] {
        std::string entries;
        for (int i = 0; i < 100'000; ++i)
            entries += entry(TEXT, "k" + std::to_string(i), text("v"));
        say(connect(), setCb() + method(4, counted(100'000, entries)));
        EXPECT_TRUE(hears(sockets[0], "Hello, world!"));
    });
}

TEST_F(HostileTest, MaySendAnyText) {
    for (const std::string &value :
         {std::string("%n%n%s%s%p"), std::string("\r\x1b[2J\x07\x9b\nE FORGED: line"),
          std::string("\xff\xc0\x80"), std::string(100'000, 'x'), std::string(10'000, '\n'),
          std::string(), std::string("../../etc")})
        play("text of " + std::to_string(value.size()), [&] {
            say(connect(), setCb() + request(value) + request("greet", value));
            EXPECT_TRUE(hears(sockets[0], "Hello, " + value + "!"));
        });
}

// The log as it is written, once no simulation collects it.
TEST_F(HostileTest, CannotForgeTheLog) {
    const std::string forgery = "\r\x1b[2J\x07\x9b\nE FORGED: line";
    Child child([&] {
        setenv("NELVO_LOG", "verbose", 1);
        app();
        host_log_set_sink(nullptr, nullptr);
        open(hello(MAIN, freshToken(), forgery));
        say(connect(), method(9, text(forgery)));
        say(connect(), setCb() + request(forgery) + request("greet", forgery));
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
    const std::regex entry("[VDIWEF] [A-Z_-]+: [ -~]*");
    std::istringstream log(child.err());
    for (std::string line; std::getline(log, line);)
        EXPECT_TRUE(std::regex_match(line, entry)) << line;
    EXPECT_NE(child.err().find("FORGED"), std::string::npos);
}

// What a client says that registers and asks for an action: its callback channel's bytes, then its
// main channel's.
struct Session {
    Session() {
        const std::string token = freshToken();
        bytes = hello(CALLBACK, token);
        mainStart = bytes.size();
        bytes += hello(MAIN, token);
        hellosEnd = bytes.size();
        bytes += setCb() + request("greet", "Ann");
    }
    void sayTo(Pair &client, std::size_t from, std::size_t to) const {
        const std::size_t middle = std::clamp(mainStart, from, to);
        client.callback.say(std::string_view(bytes).substr(from, middle - from));
        client.main.say(std::string_view(bytes).substr(middle, to - middle));
    }

    std::string bytes;
    std::size_t mainStart, hellosEnd;
};

TEST_F(HostileTest, MayEndASessionAtAnyByte) {
    enum Way { PAUSE, BOTH_ENDS_AT_ONCE, BOTH_ENDS_UNREAD, ONE_END };
    const std::size_t size = Session().bytes.size();
    const auto end = [&](Way way, std::size_t at) {
        const Session session;
        const std::size_t first = std::min(at, session.hellosEnd);
        Pair client;
        session.sayTo(client, 0, first);
        pass();
        session.sayTo(client, first, at);
        if (way == BOTH_ENDS_AT_ONCE) // with nothing left unread
            client.main.heard(), client.callback.heard();
        else
            pass();
        if (way == PAUSE) {
            pass(HANDSHAKE_SECONDS - 0.1);
            session.sayTo(client, at, size);
            pass();
            EXPECT_TRUE(hears(client.callback, "Hello, Ann!"));
        } else if (way == ONE_END) {
            (at > session.mainStart ? client.main : client.callback).endSpeech();
            pass(HANDSHAKE_SECONDS + 0.1);
            EXPECT_TRUE(client.main.hasEnded() && client.callback.hasEnded());
        }
    };
    for (const Way way : {PAUSE, BOTH_ENDS_AT_ONCE, BOTH_ENDS_UNREAD, ONE_END})
        for (std::size_t at = 1; at <= size && !HasFailure(); ++at)
            play("way " + std::to_string(way) + " at byte " + std::to_string(at), [&] {
                const int before = app().calls;
                end(way, at);
                pass();
                EXPECT_EQ(app().calls - before, way == PAUSE || at == size ? 1 : 0);
            });
}

TEST_F(HostileTest, MayFlipAnyBit) {
    for (std::size_t bit = 0; bit < 8 * Session().bytes.size() && !HasFailure(); ++bit)
        play("bit " + std::to_string(bit), [&] {
            Session session;
            session.bytes[bit / 8] = static_cast<char>(session.bytes[bit / 8] ^ 1 << bit % 8);
            const int before = app().calls;
            std::optional<Pair> client(std::in_place);
            session.sayTo(*client, 0, session.bytes.size());
            pass();
            client.reset();
            pass();
            EXPECT_TRUE(bit / 8 >= session.hellosEnd || app().calls == before);
        });
}

} // namespace
} // namespace nelvo::testkit
