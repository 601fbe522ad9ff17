// SPDX-License-Identifier: Apache-2.0
#include "simulated_ports.h"

#include <cerrno>
#include <map>
#include <utility>

#include <sys/socket.h>

namespace host {

namespace {

using Ports = std::map<std::string, std::weak_ptr<PortServer>>;

// Never destroyed: applications release stubs from static destructors.
Ports &ports() {
    static Ports &instance = *new Ports;
    return instance;
}

} // namespace

bool addSimulatedPort(const std::string &name, std::weak_ptr<PortServer> server) {
    return ports().emplace(name, std::move(server)).second;
}

void removeSimulatedPort(const std::string &name) {
    ports().erase(name);
}

UniqueFd connectToSimulatedPort(const std::string &name) {
    const auto found = ports().find(name);
    const auto server = found != ports().end() ? found->second.lock() : nullptr;
    int ends[2];
    if (!server) {
        errno = ENOENT;
    } else if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0) {
        server->addIncoming(UniqueFd(ends[1]));
        return UniqueFd(ends[0]);
    }
    return UniqueFd();
}

} // namespace host
