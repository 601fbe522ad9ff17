// SPDX-License-Identifier: Apache-2.0
// sd-bus: a method that takes a text and returns it. WITH_DAEMON: through a private dbus-daemon,
// else from process to process.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>

#include <sys/prctl.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "../clock.h"
#include "../frames.h"
#include "../harness.h"

namespace {

const char *const NAME = "bench.Echo";
const char *const PATH = "/bench";

std::string address(const std::string &folder) {
    return "unix:path=" + folder + "/socket";
}

// Connects to whom the address names, as a client of the bus or of the peer.
sd_bus *open(const std::string &folder) {
    sd_bus *bus = nullptr;
    bench::require(sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address(folder).c_str()) >= 0 &&
                       sd_bus_set_bus_client(bus, WITH_DAEMON) >= 0 && sd_bus_start(bus) >= 0,
                   "connect");
    return bus;
}

void startDaemon(const std::string &folder) {
    const std::string config = folder + "/bus.conf";
    std::ofstream(config) << "<busconfig><type>session</type><auth>EXTERNAL</auth><listen>"
                          << address(folder)
                          << "</listen><policy context=\"default\"><allow send_destination=\"*\"/>"
                             "<allow receive_sender=\"*\"/>"
                             "<allow own=\"*\"/></policy></busconfig>\n";
    int listening[2];
    bench::check(pipe(listening) == 0, "make a pipe");
    const pid_t child = fork();
    bench::check(child >= 0, "fork");
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        std::freopen((folder + "/daemon.log").c_str(), "w", stderr);
        execlp("dbus-daemon", "dbus-daemon", "--nofork", "--nopidfile", "--config-file",
               config.c_str(), "--print-address", std::to_string(listening[1]).c_str(), nullptr);
        bench::die("could not start dbus-daemon; install the package of that name");
    }
    close(listening[1]);
    char byte = 0;
    bench::require(read(listening[0], &byte, 1) == 1, "start dbus-daemon");
}

sd_bus *serveOnBus(const std::string &folder, int readyFd) {
    startDaemon(folder);
    sd_bus *bus = open(folder);
    bench::require(sd_bus_request_name(bus, NAME, 0) >= 0, "take a name on the bus");
    bench::reportReady(readyFd);
    return bus;
}

sd_bus *servePeer(const std::string &folder, int readyFd) {
    const int listener = bench::listenIn(folder);
    bench::reportReady(readyFd);
    const int fd = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    sd_bus *bus = nullptr;
    sd_id128_t id{};
    bench::require(fd >= 0 && sd_id128_randomize(&id) >= 0 && sd_bus_new(&bus) >= 0 &&
                       sd_bus_set_fd(bus, fd, fd) >= 0 && sd_bus_set_server(bus, 1, id) >= 0 &&
                       sd_bus_start(bus) >= 0,
                   "accept a client");
    return bus;
}

int echoCb(sd_bus_message *call, void *, sd_bus_error *) {
    const char *text = nullptr;
    const int error = sd_bus_message_read(call, "s", &text);
    return error < 0 ? error : sd_bus_reply_method_return(call, "s", text);
}

const sd_bus_vtable METHODS[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Echo", "s", "s", echoCb, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END};

void serve(const bench::Options &options, int readyFd) {
    sd_bus *bus =
        WITH_DAEMON ? serveOnBus(options.folder, readyFd) : servePeer(options.folder, readyFd);
    bench::require(sd_bus_add_object_vtable(bus, nullptr, PATH, NAME, METHODS, nullptr) >= 0,
                   "add the method");
    for (int processed = 0; processed >= 0;) {
        processed = sd_bus_process(bus, nullptr);
        if (processed == 0)
            processed = sd_bus_wait(bus, UINT64_MAX);
    }
}

class SdBusClient : public bench::Client {
public:
    SdBusClient(sd_bus *bus, std::size_t payload) : _bus(bus), _text(bench::text(payload)) {}
    ~SdBusClient() override { sd_bus_unref(_bus); }

    void roundTrip() override {
        sd_bus_message *reply = nullptr;
        const char *text = nullptr;
        bench::require(sd_bus_call_method(_bus, WITH_DAEMON ? NAME : nullptr, PATH, NAME, "Echo",
                                          nullptr, &reply, "s", _text.c_str()) >= 0 &&
                           sd_bus_message_read(reply, "s", &text) >= 0 &&
                           std::strlen(text) == _text.size(),
                       "get the payload back");
        sd_bus_message_unref(reply);
    }

private:
    sd_bus *_bus;
    std::string _text;
};

std::unique_ptr<bench::Client> connect(const bench::Options &options) {
    return std::make_unique<SdBusClient>(open(options.folder), options.payload);
}

} // namespace

int main(int argc, char **argv) {
    return bench::run(argc, argv, {serve, connect});
}
