// SPDX-License-Identifier: Apache-2.0
// The transport between processes: its sockets in the file system and what hostile ones may do.
#include <rpc-port.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <Ecore.h>

#include <host/log.h>
#include <host/sim.h>

#include "rpc_peers.h"

namespace {

using Events = std::vector<std::string>;

const std::string TOKEN(16, 't');

std::string frame(const std::string &payload) {
    const auto size = static_cast<unsigned>(payload.size());
    std::string header;
    for (int shift = 0; shift < 32; shift += 8) {
        header += static_cast<char>(size >> shift);
    }
    return header + payload;
}

std::string hello(char kind, const std::string &token = TOKEN,
                  const std::string &sender = "raw.client") {
    return frame(std::string("NVRP\x01", 5) + kind + token + static_cast<char>(sender.size()) +
                 sender);
}

// A client that speaks bytes.
class RawClient {
public:
    explicit RawClient(const std::string &path, const std::string &bytes = "")
        : _fd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        EXPECT_EQ(0, connect(_fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)));
        say(bytes);
    }
    RawClient(const RawClient &) = delete;
    ~RawClient() { close(_fd); }
    void say(const std::string &bytes) {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  send(_fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    void shut() { shutdown(_fd, SHUT_WR); }
    // What has come; then "|" if the server has closed.
    std::string heard() {
        char bytes[4096];
        const ssize_t count = recv(_fd, bytes, sizeof(bytes), 0);
        if (count > 0) {
            return std::string(bytes, static_cast<std::size_t>(count)) + heard();
        }
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
        host_log_set_sink(
            [](log_priority, const char *, const char *text, void *data) {
                *static_cast<std::string *>(data) += std::string(text) + "\n";
            },
            &log);
    }
    ~RuntimeDirTest() override {
        host_log_set_sink(nullptr, nullptr);
        EXPECT_EQ(0, std::system(("rm -rf " + base).c_str()));
    }
    void use(const std::string &dir) {
        path = dir + "/demo.app:message";
        setenv("NELVO_HOST_RUNTIME_DIR", dir.c_str(), 1);
    }
    bool exists() const { return access(path.c_str(), F_OK) == 0; }
    bool logged(const std::string &text) const { return log.find(text) != std::string::npos; }
    static void iterate() {
        for (int i = 0; i < 30; ++i) {
            ecore_main_loop_iterate();
        }
    }

    std::string base;
    std::string path;
    std::string log;
};

TEST_F(RuntimeDirTest, KeepsItsSocketsInADirectoryForTheUserAlone) {
    Server server;
    struct stat state {};
    EXPECT_EQ(0, stat((base + "/run").c_str(), &state));
    EXPECT_EQ(mode_t{S_IFDIR | 0700}, state.st_mode);
    EXPECT_TRUE(exists());
    server.destroy();
    EXPECT_FALSE(exists());
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Client().connect());
}

TEST_F(RuntimeDirTest, RefusesADirectoryThatIsNotForTheUserAlone) {
    const struct {
        const char *setUp; // with $D for the folder of this test
        std::string dir;
        const char *reason;
    } rows[] = {
        {"mkdir -m 700 $D/a && ln -s a $D/link", "/link", "link"},
        {"true", "/link/", "link"},
        {"touch $D/file", "/file", "no directory"},
        {"mkdir -m 710 $D/group", "/group", "other users may enter it"},
        {"mkdir -m 701 $D/others", "/others", "other users may enter it"},
        {"true", "/absent/deeper", "No such file"},
        {"true", "/" + std::string(90, 'x'), "too long"},
        {"true", "", "another user"},
    };
    setenv("D", base.c_str(), 1);
    for (const auto &row : rows) {
        SCOPED_TRACE(row.reason);
        log.clear();
        ASSERT_EQ(0, std::system(row.setUp));
        std::string dir = base + row.dir;
        if (row.dir.empty() && (geteuid() != 0 || chown(dir.c_str(), 1, 1) != 0)) {
            dir = "/"; // nobody's but the superuser's
        }
        use(dir);
        EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Server().listened);
        EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Client().connect());
        EXPECT_TRUE(logged(row.reason) && logged("NELVO_HOST_RUNTIME_DIR")) << log;
    }
}

TEST_F(RuntimeDirTest, TakesOverWhatADeadServerLeftAndNothingElse) {
    Server first;
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Server().listened);
    EXPECT_TRUE(logged("port \"message\" of demo.app is served already, by process " +
                       std::to_string(getpid())))
        << log;
    EXPECT_EQ(RPC_PORT_ERROR_NONE, Server("other").listened);
    // A lock alone is enough, and without its lock file a server is still found by asking it.
    const int lock = open((path + "2.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(0, flock(lock, LOCK_EX));
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Server("message2").listened);
    close(lock);
    EXPECT_EQ(0, unlink((path + ".lock").c_str()));
    log.clear();
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Server().listened);
    EXPECT_TRUE(exists() && logged("served already")) << log;
    first.destroy();

    const pid_t child = fork();
    if (child == 0) {
        Server dying;
        _exit(dying.listened == RPC_PORT_ERROR_NONE ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(exists());
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Client().connect());
    EXPECT_EQ(RPC_PORT_ERROR_NONE, Server().listened);

    EXPECT_EQ(0, mkdir(path.c_str(), 0700));
    EXPECT_EQ(RPC_PORT_ERROR_IO_ERROR, Server().listened);
    EXPECT_TRUE(exists() && logged("no socket"));
}

TEST_F(RuntimeDirTest, ServesClientsOfOtherProcesses) {
    int ready[2];
    ASSERT_EQ(0, pipe2(ready, O_CLOEXEC));
    const pid_t child = fork();
    if (child == 0) {
        Server server;
        server.onDisconnected = [] { ecore_main_loop_quit(); };
        server.onReceived = [&](rpc_port_h port) {
            const std::string text = takeText(port);
            if (text == "die") {
                _exit(3);
            }
            sendText(server.lastPort(RPC_PORT_PORT_CALLBACK), "event");
            return sendText(port, std::string(3'000'000, 'r') + text);
        };
        close(ready[1]);
        ecore_main_loop_begin();
        _exit(4);
    }
    close(ready[1]);
    char byte;
    EXPECT_EQ(0, read(ready[0], &byte, 1));
    close(ready[0]);
    Client client;
    client.onEvent = [](const std::string &) { ecore_main_loop_quit(); };
    const auto awaitEvents = [&](std::size_t count) {
        while (client.events.size() < count) {
            ecore_main_loop_begin();
        }
    };
    ASSERT_EQ(RPC_PORT_ERROR_NONE, client.connect());
    awaitEvents(1);
    for (const std::string &text : {std::string("call"), std::string(2'000'000, 'q')}) {
        EXPECT_EQ(RPC_PORT_ERROR_NONE, sendText(client.mainPort(), text));
        EXPECT_TRUE(std::string(3'000'000, 'r') + text == takeText(client.mainPort()));
        EXPECT_EQ("connected", client.events.back()); // no event from inside the wait
    }
    awaitEvents(3);
    sendText(client.mainPort(), "die");
    EXPECT_EQ("(none)", takeText(client.mainPort()));
    EXPECT_EQ((Events{"connected", "event", "event"}), client.events);
    awaitEvents(4);
    EXPECT_EQ("disconnected", client.events.back());
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(3, WEXITSTATUS(status));
}

TEST_F(RuntimeDirTest, SpeaksTheDocumentedProtocol) {
    Server server;
    server.onReceived = [&](rpc_port_h port) {
        rpc_port_parcel_h parcel = nullptr;
        EXPECT_EQ(RPC_PORT_ERROR_NONE, rpc_port_parcel_create_from_port(&parcel, port));
        rpc_port_parcel_send(parcel, server.lastPort(RPC_PORT_PORT_CALLBACK));
        server.events.emplace_back("frame");
        return rpc_port_parcel_destroy(parcel);
    };
    RawClient callback(path, hello(1));
    iterate();
    RawClient main(path);
    for (const char byte : hello(0) + frame("") + frame("abc")) {
        main.say(std::string(1, byte)); // however it is cut
        iterate();
    }
    EXPECT_EQ((Events{"+raw.client", "frame", "frame"}), server.events);
    EXPECT_EQ(std::string("\5\0\0\0NVRP\1", 9), main.heard());
    EXPECT_EQ(std::string("\0\0\0\0\3\0\0\0abc", 11), callback.heard());
}

TEST_F(RuntimeDirTest, LetsANewStubListenInsideTheCallbackThatDestroysTheOldOne) {
    Server server;
    std::unique_ptr<Server> next;
    server.onConnected = [&] {
        server.destroy();
        next = std::make_unique<Server>();
    };
    RawClient main(path, hello(0));
    RawClient callback(path, hello(1));
    iterate();
    EXPECT_EQ("|", main.heard());
    ASSERT_NE(nullptr, next);
    EXPECT_EQ(RPC_PORT_ERROR_NONE, next->listened);
    EXPECT_TRUE(exists());
}

TEST_F(RuntimeDirTest, SendsNothingAheadOfWhatIsQueued) {
    Server server;
    RawClient main(path, hello(0));
    RawClient callback(path, hello(1));
    iterate();
    const std::string large(1'000'000, 'a');
    std::string heard;
    sendText(server.lastPort(RPC_PORT_PORT_CALLBACK), large);
    while (heard.size() < large.size() * 7 / 10) {
        iterate();
        heard += callback.heard();
    }
    // Now the socket has room, and most of the queue is gone.
    sendText(server.lastPort(RPC_PORT_PORT_CALLBACK), "b");
    for (int i = 0; i < 30; ++i) {
        iterate();
        heard += callback.heard();
    }
    ASSERT_EQ(large.size() + 9 + 10, heard.size());
    EXPECT_EQ(std::string("\2\0\0\0b\0", 6), heard.substr(heard.size() - 6));
}

TEST_F(RuntimeDirTest, RefusesABadHandshakeAndNobodyElse) {
    Server server;
    host_sim_start();
    const std::string good = hello(0);
    std::string otherMagic = good, otherVersion = good, otherLength = good;
    otherMagic[4] = 'X';
    otherVersion[8] = 2;
    otherLength[26]++;
    const struct {
        const char *what;
        std::string first;
        std::string second; // on another socket
        bool waits;         // closed only when the time is over
    } rows[] = {
        {"another magic", otherMagic, "", false},
        {"another version", otherVersion, "", false},
        {"another kind", hello(2), "", false},
        {"a length that does not fit", otherLength, "", false},
        {"no sender", hello(0, TOKEN, ""), "", false},
        {"a sender with a zero inside", hello(0, TOKEN, std::string("a\0b", 3)), "", false},
        {"a sender that leaves the directory", hello(0, TOKEN, "../a"), "", false},
        {"an empty frame", frame(""), "", false},
        {"a frame too long for a hello", std::string("\xff\0\0\0", 4), "", false},
        {"two main channels", good, good, false},
        {"halves of two senders", hello(1, TOKEN, "raw.other"), good, false},
        {"a callback channel that goes on", good, hello(1) + "x", false},
        {"nothing", "", "", true},
        {"half a hello", good.substr(0, 9), "", true},
        {"one channel", good, "", true},
        {"halves that do not belong together", hello(1, std::string(16, 'x')), good, true},
    };
    server.onReceived = [](rpc_port_h) { return 0; };
    RawClient main(path, hello(0, std::string(16, 'w')));
    RawClient callback(path, hello(1, std::string(16, 'w')));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        RawClient first(path, row.first);
        RawClient second(path, row.second);
        RawClient &last = row.second.empty() ? first : second;
        host_sim_advance(4.9);
        EXPECT_EQ(row.waits ? "" : "|", last.heard());
        host_sim_advance(0.2);
        EXPECT_EQ("|", last.heard());
    }
    EXPECT_EQ("+raw.client", server.events.front());
    EXPECT_EQ(9U, main.heard().size());
    EXPECT_EQ("", callback.heard());
}

TEST_F(RuntimeDirTest, EndsOnlyTheConnectionThatBreaksTheProtocol) {
    Server server;
    const struct {
        const char *what;
        std::function<void(RawClient &, RawClient &)> act; // main, callback
    } rows[] = {
        {"a frame too long", [](auto &main, auto &) { main.say(std::string("\1\0\0\1", 4)); }},
        {"a length beyond all bounds", [](auto &main, auto &) { main.say("\xff\xff\xff\xff"); }},
        {"half a header", [](auto &main, auto &) { main.say("\1"), main.shut(); }},
        {"half a frame", [](auto &main, auto &) { main.say(frame("abc") + "\1"), main.shut(); }},
        {"end of the main channel", [](auto &main, auto &) { main.shut(); }},
        {"end of the callback channel", [](auto &, auto &callback) { callback.shut(); }},
        {"a byte on the callback channel", [](auto &, auto &callback) { callback.say("x"); }},
        {"a frame on the callback channel",
         [](auto &, auto &callback) { callback.say(frame("")); }},
    };
    server.onReceived = [](rpc_port_h) { return 0; };
    RawClient goodMain(path, hello(0, std::string(16, 'g')));
    RawClient goodCallback(path, hello(1, std::string(16, 'g')));
    iterate();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        server.events.clear();
        RawClient main(path, hello(0));
        RawClient callback(path, hello(1));
        iterate();
        row.act(main, callback);
        iterate();
        EXPECT_EQ((Events{"+raw.client", "-raw.client"}), server.events);
        EXPECT_EQ('|', main.heard().back());
        EXPECT_EQ("|", callback.heard());
    }
    EXPECT_EQ(9U, goodMain.heard().size());
    EXPECT_EQ("", goodCallback.heard());
}

TEST_F(RuntimeDirTest, ReservesNoMemoryForWhatIsOnlyAnnounced) {
    Server server;
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 40; ++i) {
        for (const char kind : {'\0', '\1'}) {
            clients.push_back(std::make_unique<RawClient>(
                path, hello(kind, std::string(16, static_cast<char>('A' + i)))));
            if (kind == 0) {
                clients.back()->say(std::string("\0\0\0\1part", 8));
            }
        }
        iterate();
        clients[clients.size() - 2]->say("more");
        iterate();
    }
    EXPECT_EQ(40U, server.events.size());
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    EXPECT_GT(300'000, usage.ru_maxrss); // kilobytes; forty frames would take twice as many
}

TEST_F(RuntimeDirTest, DropsTheOldestOfTooManyIncompleteConnections) {
    Server server;
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 66; ++i) {
        clients.push_back(std::make_unique<RawClient>(path, i == 2 ? hello(0) : ""));
        iterate();
    }
    RawClient callback(path); // the 67th: the third is gone with its hello
    iterate();
    for (std::size_t i = 0; i < clients.size(); ++i) {
        EXPECT_EQ(i < 3 ? "|" : "", clients[i]->heard()) << i;
    }
}

TEST_F(RuntimeDirTest, WaitsForDescriptorsInsteadOfSpinning) {
    Server server;
    host_sim_start();
    RawClient main(path, hello(0));
    RawClient callback(path, hello(1));
    std::vector<int> taken;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t before = std::exchange(limit.rlim_cur, 64);
    setrlimit(RLIMIT_NOFILE, &limit);
    for (int fd = 0; (fd = dup(0)) >= 0;) {
        taken.push_back(fd);
    }
    host_sim_advance(1); // would never return if it spun
    for (const int fd : taken) {
        close(fd);
    }
    EXPECT_TRUE(logged("have to wait")) << log;
    limit.rlim_cur = 40; // fewer than it keeps in reserve
    setrlimit(RLIMIT_NOFILE, &limit);
    RawClient refused(path);
    host_sim_advance(0.2);
    EXPECT_EQ("|", refused.heard());
    EXPECT_TRUE(logged("no descriptors to spare")) << log;
    limit.rlim_cur = before;
    setrlimit(RLIMIT_NOFILE, &limit);
    RawClient lateMain(path, hello(0));
    RawClient lateCallback(path, hello(1));
    host_sim_advance(0);
    EXPECT_EQ(Events{"+raw.client"}, server.events);
}

} // namespace
