// SPDX-License-Identifier: Apache-2.0
// The transport between processes: its sockets in the file system and what hostile ones may do.
#include <rpc-port.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <Ecore.h>

#include <host/log.h>
#include <host/runtime_dir.h>
#include <host/sim.h>

#include "rpc_peers.h"

namespace {

using namespace nelvo::testkit::peers;

void iterate() {
    for (int i = 0; i < 5; ++i)
        ecore_main_loop_iterate();
}

std::string frame(const std::string &payload) {
    const auto size = static_cast<std::uint32_t>(payload.size()); // the lowest byte is the first
    return std::string(reinterpret_cast<const char *>(&size), sizeof(size)) + payload;
}

std::string hello(char kind, char token = 't', const std::string &sender = "raw") {
    return frame(std::string("NVRP\x01", 5) + kind + std::string(16, token) +
                 static_cast<char>(sender.size()) + sender);
}

// A client that speaks bytes.
class RawClient {
public:
    explicit RawClient(const std::string &path, const std::string &bytes = "")
        : _fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{AF_UNIX, {}};
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(0, connect(_fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)));
        if (!bytes.empty())
            say(bytes);
    }
    ~RawClient() { close(_fd); }
    void say(const std::string &bytes) {
        send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        iterate();
    }
    // The same with a descriptor, and without a round.
    void pass(std::string bytes) {
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(_fd))] = {};
        iovec part{bytes.data(), bytes.size()};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr *const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(_fd));
        std::memcpy(CMSG_DATA(header), &_fd, sizeof(_fd));
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), sendmsg(_fd, &message, MSG_NOSIGNAL));
    }
    void shut() { shutdown(_fd, SHUT_WR); }
    // What has come; then "|" if the server has closed.
    std::string heard() {
        char bytes[4096];
        const ssize_t count = recv(_fd, bytes, sizeof(bytes), 0);
        if (count > 0)
            return std::string(bytes, static_cast<std::size_t>(count)) + heard();
        return count == 0 || errno == ECONNRESET ? "|" : "";
    }

private:
    const int _fd;
};

// Each case has a runtime directory of its own. Some start the virtual clock once the server
// listens: its sockets stay real ones, and seconds cost nothing.
class RuntimeDirTest : public testing::Test {
protected:
    RuntimeDirTest() {
        char name[] = "runtime_dir_test.XXXXXX";
        base = mkdtemp(name);
        use(base + "/run");
        setenv("NELVO_HOST_APP_ID", "demo.app", 1);
        const auto keep = [](log_priority, const char *, const char *text, void *data) {
            *static_cast<std::string *>(data) += std::string(text) + "\n";
        };
        host_log_set_sink(keep, &log);
    }
    ~RuntimeDirTest() override {
        host_log_set_sink(nullptr, nullptr);
        EXPECT_EQ(0, std::system(("rm -rf " + base).c_str()));
    }
    void use(const std::string &dir) {
        path = dir + "/demo.app:message";
        setenv("NELVO_HOST_RUNTIME_DIR", dir.c_str(), 1);
    }
    bool logged(const std::string &text) const { return log.find(text) != std::string::npos; }

    std::string base, path, log;
};

TEST(RuntimeDirRule, ChoosesTheDirectoryFromAnyEnvironment) {
    using Environment = std::map<std::string, std::string>;
    const std::pair<Environment, std::string> rows[] = {
        {{{"NELVO_HOST_RUNTIME_DIR", "own//"}, {"XDG_RUNTIME_DIR", "/users"}}, "own"},
        {{{"NELVO_HOST_RUNTIME_DIR", "/"}}, "/"},
        {{{"NELVO_HOST_RUNTIME_DIR", ""}, {"XDG_RUNTIME_DIR", "/users"}}, "/users/nelvo"},
        {{{"XDG_RUNTIME_DIR", ""}}, "/tmp/nelvo-" + std::to_string(geteuid())},
        {{}, "/tmp/nelvo-" + std::to_string(geteuid())},
    };
    const auto lookUp = [](const char *name, void *data) -> const char * {
        const auto &environment = *static_cast<const Environment *>(data);
        const auto found = environment.find(name);
        return found != environment.end() ? found->second.c_str() : nullptr;
    };
    for (auto [environment, expected] : rows) {
        const std::unique_ptr<char, void (*)(void *)> dir(host_runtime_dir(lookUp, &environment),
                                                          std::free);
        EXPECT_STREQ(dir.get(), expected.c_str());
    }
}

TEST_F(RuntimeDirTest, RefusesADirectoryThatIsNotForTheUserAlone) {
    const struct {
        const char *setUp; // of $D
        const char *reason;
        std::string suffix = "";
    } rows[] = {
        {"ln -s . $D", "link"},
        {"ln -s . $D", "link", "/"},
        {"touch $D", "no directory"},
        {"mkdir -m 710 $D", "other users may enter it"},
        {"mkdir -m 701 $D", "other users may enter it"},
        {"true", "No such file", "/deeper"},
        {"true", "too long", std::string(90, 'x')},
        {"mkdir -m 700 $D && chown 1 $D 2>&-", "another user"},
    };
    const std::string dir = base + "/run";
    setenv("D", dir.c_str(), 1);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.reason);
        log.clear();
        // For want of a user's directory to give away, one that is nobody's but the superuser's.
        const bool made = std::system((std::string("rm -rf $D; ") + row.setUp).c_str()) == 0;
        use(made ? dir + row.suffix : "/");
        EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Server().listened);
        EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Client().connect());
        EXPECT_TRUE(logged(row.reason) && logged("NELVO_HOST_RUNTIME_DIR")) << log;
    }
}

TEST_F(RuntimeDirTest, TakesOverWhatADeadServerLeftAndNothingElse) {
    const auto refusal = [&](const char *port = "message") {
        log.clear();
        return Server(port).listened == RPC_PORT_ERROR_NONE ? "listens" : log;
    };
    const auto exists = [&] { return access(path.c_str(), F_OK) == 0; };
    Server first;
    struct stat state {};
    stat((base + "/run").c_str(), &state);
    EXPECT_EQ(mode_t{S_IFDIR | 0700}, state.st_mode);
    const std::string mine = "served already, by process " + std::to_string(getpid());
    EXPECT_NE(std::string::npos, refusal().find(mine));
    // A lock alone is enough, and without its lock file a server is still found by asking it.
    const int lock = open((path + "2.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(0, flock(lock, LOCK_EX));
    EXPECT_NE("listens", refusal("message2"));
    close(lock);
    EXPECT_EQ("listens", refusal("message2"));
    EXPECT_EQ(0, unlink((path + ".lock").c_str()));
    EXPECT_NE(std::string::npos, refusal().find(mine));
    EXPECT_TRUE(exists());
    first.destroy();
    EXPECT_FALSE(exists());
    const auto serveAndDie = [] {
        Server dying;
        _exit(-dying.listened);
    };
    EXPECT_EXIT(serveAndDie(), testing::ExitedWithCode(0), "");
    EXPECT_TRUE(exists());
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Client().connect());
    EXPECT_EQ("listens", refusal());
    EXPECT_EQ(0, mkdir(path.c_str(), 0700));
    EXPECT_NE(std::string::npos, refusal().find("no socket"));
    EXPECT_TRUE(exists());
}

TEST_F(RuntimeDirTest, ServesClientsOfOtherProcesses) {
    const std::string large(3'000'000, 'r');
    if (fork() == 0) {
        Server server;
        server.onReceived = [&](rpc_port_h port) {
            const std::string text = takeText(port);
            if (text == "die")
                _exit(0);
            return sendText(server.callbackPort(), "event") + sendText(port, large + text);
        };
        ecore_main_loop_begin();
    }
    Client client;
    client.onEvent = [](const std::string &) { ecore_main_loop_quit(); };
    while (client.connect() != RPC_PORT_ERROR_NONE)
        sched_yield(); // the child is not there yet
    ecore_main_loop_begin();
    for (const std::string &text : {std::string("call"), large}) {
        sendText(client.port(), text);
        EXPECT_TRUE(large + text == takeText(client.port()));
    }
    sendText(client.port(), "die");
    EXPECT_EQ("(none)", takeText(client.port()));
    EXPECT_EQ("connected ", client.events); // no event from inside the wait
    while (client.port())
        ecore_main_loop_begin();
    EXPECT_EQ("connected event event disconnected ", client.events);
    EXPECT_NE(-1, wait(nullptr));
}

TEST_F(RuntimeDirTest, SpeaksTheDocumentedProtocolAndEndsOnlyTheConnectionThatDoesNot) {
    Server server;
    host_sim_start();
    server.onReceived = [&](rpc_port_h port) {
        rpc_port_parcel_h parcel = nullptr;
        EXPECT_EQ(RPC_PORT_ERROR_NONE, rpc_port_parcel_create_from_port(&parcel, port));
        rpc_port_parcel_send(parcel, server.callbackPort());
        return server.note("frame"), rpc_port_parcel_destroy(parcel);
    };
    const auto changed = [](std::size_t at) { return hello(0).replace(at, 1, 1, '\x02'); };
    RawClient goodMain(path), goodCallback(path, hello(1, 'g'));
    for (const char byte : hello(0, 'g') + frame("") + frame("abc"))
        goodMain.say({byte}); // however it is cut
    const std::string pair = "+raw -raw ";
    const struct {
        const char *what;
        std::string first, second; // each on a socket
        std::string events = "";   // none: the last socket that said something is closed
        int shut = 0;              // which of them ends then
        bool waits = false;        // until the time is over
    } rows[] = {
        {"another magic", changed(4), ""},
        {"another version", changed(8), ""},
        {"another kind", hello(2), ""},
        {"a length that does not fit", changed(26), ""},
        {"no sender", hello(0, 't', ""), ""},
        {"a sender with a zero inside", hello(0, 't', std::string("a\0b", 3)), ""},
        {"a sender that leaves the directory", hello(0, 't', "../a"), ""},
        {"an empty frame", frame(""), ""},
        {"a frame too long for a hello", std::string("\xff\0\0\0", 4), ""},
        {"two main channels", hello(0), hello(0)},
        {"halves of two senders", hello(1, 't', "other"), hello(0)},
        {"nothing", "", "", "", 0, true},
        {"half a hello", hello(0).substr(0, 9), "", "", 0, true},
        {"halves that do not belong together", hello(1, 'x'), hello(0), "", 0, true},
        {"a callback channel that goes on", hello(0), hello(1) + "x", pair},
        {"a frame on it", hello(0), hello(1) + frame(""), pair},
        {"a frame too long", hello(1), hello(0) + std::string("\1\0\0\1", 4), pair},
        {"what comes before the other half", hello(0) + frame("a"), hello(1), "+raw frame -raw ",
         1},
        {"half a header", hello(1), hello(0) + "\1", pair, 2},
        {"half a frame", hello(1), hello(0) + frame("a") + "\1", "+raw frame -raw ", 2},
        {"end of the main channel", hello(1), hello(0), pair, 2},
        {"end of the callback channel", hello(1), hello(0), pair, 1},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        server.events.clear();
        RawClient first(path, row.first), second(path, row.second);
        if (row.shut > 0)
            (row.shut == 1 ? first : second).shut();
        host_sim_advance(4.9);
        RawClient &last = row.second.empty() ? first : second;
        const bool closed = last.heard().find('|') != std::string::npos;
        EXPECT_EQ(!row.waits, closed);
        host_sim_advance(0.2);
        EXPECT_TRUE(closed || last.heard() == "|");
        EXPECT_EQ(row.events, server.events);
    }
    RawClient(path, hello(0) + frame("left behind"));
    host_sim_advance(1); // would never return if it spun
    EXPECT_EQ(std::string("\5\0\0\0NVRP\1", 9), goodMain.heard());
    EXPECT_EQ(std::string("\0\0\0\0\3\0\0\0abc", 11), goodCallback.heard());
}

TEST_F(RuntimeDirTest, ReadsOnWhereDescriptorsInterruptAFrame) {
    Server server;
    RawClient main(path, hello(0)), callback(path, hello(1));
    server.events.clear();
    const std::string bytes = frame(frame(std::string("text\0", 5)));
    main.pass(bytes.substr(0, 2));
    main.pass(bytes.substr(2, 6));
    main.say(bytes.substr(8));
    EXPECT_EQ("text ", server.events);
}

TEST_F(RuntimeDirTest, BoundsMemoryAndIncompleteConnections) {
    Server server;
    std::deque<RawClient> clients;
    for (char token = 0; token < 40; ++token) {
        clients.emplace_back(path, hello(0, token) + std::string("\0\0\0\1part", 8));
        clients.emplace_back(path, hello(1, token));
    }
    EXPECT_EQ(40U * 5, server.events.size());
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    EXPECT_GT(300'000, usage.ru_maxrss); // kilobytes; forty frames would take twice as many
    for (int i = 0; i < 67; ++i) {
        clients.emplace_back(path, i == 2 ? hello(0) : "");
        iterate();
    }
    for (std::size_t i = 0; i < 67; ++i)
        EXPECT_EQ(i < 3 ? "|" : "", clients[80 + i].heard()) << i;
}

TEST_F(RuntimeDirTest, WaitsForDescriptorsInsteadOfSpinning) {
    Server server;
    host_sim_start();
    RawClient waiting(path);
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const int free = dup(0);
    close(free);
    const auto advanceWith = [&](int spare, double seconds) {
        const rlimit lower{static_cast<rlim_t>(free + spare), limit.rlim_max};
        setrlimit(RLIMIT_NOFILE, &lower);
        host_sim_advance(seconds);
        setrlimit(RLIMIT_NOFILE, &limit);
    };
    advanceWith(0, 1); // would never return if it spun
    EXPECT_TRUE(logged("have to wait")) << log;
    EXPECT_EQ("", waiting.heard());
    advanceWith(20, 0.2); // fewer than it keeps in reserve
    EXPECT_TRUE(logged("no descriptors to spare")) << log;
    EXPECT_EQ("|", waiting.heard());
    RawClient main(path, hello(0)), callback(path, hello(1));
    EXPECT_EQ("+raw ", server.events);
}

} // namespace
