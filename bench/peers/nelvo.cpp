// SPDX-License-Identifier: Apache-2.0
// Our whole road, between two processes: a client on the proxy API, the host platform, the library
// and an application on its public header. $NELVO_BENCH_WRAP stands before the application's
// command line.
#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

#include <Ecore.h>
#include <host/app_id.h>

#include "../harness.h"
#include "client/message_proxy.h"

namespace {

using nelvo::client::Answer;
using nelvo::client::MessageProxy;

const char *const APP_ID = "bench.app";

void serve(const bench::Options &options, int readyFd) {
    setenv("NELVO_HOST_RUNTIME_DIR", options.folder.c_str(), 1);
    const char *wrap = std::getenv("NELVO_BENCH_WRAP");
    const std::string command =
        std::string("exec ") + (wrap ? wrap : "") + " '" BENCH_APP "' " + std::to_string(readyFd);
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    bench::die("could not start " BENCH_APP);
}

// Connected and registered once it is constructed. One per process, which speaks for one app id.
class NelvoClient : public bench::Client {
public:
    NelvoClient(const std::string &folder, const std::string &id, std::size_t payload) {
        setenv("NELVO_HOST_RUNTIME_DIR", folder.c_str(), 1);
        bench::require(host_set_app_id(id.c_str()) == 0, "take an id");
        ecore_init();
        _proxy.events.connected = [this] { finish(_proxy.setCb().ok()); };
        _proxy.events.answered = [this](const Answer &answer) { take(answer); };
        _proxy.events.rejected = _proxy.events.disconnected = [this] { finish(false); };
        bench::require(_proxy.connect(APP_ID) == RPC_PORT_ERROR_NONE, "connect");
        await("register with the application");
        _request.actionId = "echo";
        _request.actionParams = bench::text(payload);
    }

    void roundTrip() override {
        ++_request.requestId;
        const auto request = nelvo::client::makeRequest(_request);
        bench::require(request && _proxy.send(request.get()) == RPC_PORT_ERROR_NONE, "send");
        await("get the payload back");
    }

    void stopServer(pid_t) override {
        _request.actionId = "quit";
        _request.actionParams = "";
        roundTrip();
    }

private:
    void take(const Answer &answer) {
        const auto text = answer.response.fields.find("result");
        finish(answer.response.requestId == _request.requestId &&
               text != answer.response.fields.end() &&
               text->second.size() == _request.actionParams->size());
    }

    void finish(bool worked) {
        _worked = worked;
        ecore_main_loop_quit();
    }

    void await(const char *what) {
        ecore_main_loop_begin();
        bench::require(_worked, what);
    }

    MessageProxy _proxy;
    nelvo::client::Request _request;
    bool _worked = false;
};

// Stays connected until this process ends: its end of the pipe shows that.
void idle(const std::string &folder, int number, int connectedFd, int endFd) {
    NelvoClient client(folder, "bench.idle." + std::to_string(number), 0);
    char end = 0;
    bench::check(write(connectedFd, &end, 1) == 1, "report");
    bench::require(read(endFd, &end, 1) == 0, "wait for the end");
    _exit(0);
}

void addIdleClients(const std::string &folder, int count) {
    int connected[2];
    int end[2]; // never closed by hand: its writing end lives as long as this process
    bench::check(pipe(connected) == 0 && pipe(end) == 0, "make a pipe");
    for (int number = 0; number < count; ++number) {
        const pid_t child = fork();
        bench::check(child >= 0, "fork");
        if (child == 0) {
            close(end[1]);
            idle(folder, number, connected[1], end[0]);
        }
        char byte = 0;
        bench::require(read(connected[0], &byte, 1) == 1, "connect an idle client");
    }
    close(connected[0]);
    close(connected[1]);
}

std::unique_ptr<bench::Client> connect(const bench::Options &options) {
    addIdleClients(options.folder, options.idle);
    return std::make_unique<NelvoClient>(options.folder, "bench.client", options.payload);
}

} // namespace

int main(int argc, char **argv) {
    return bench::run(argc, argv, {serve, connect});
}
