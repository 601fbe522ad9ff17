// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#include "unique_fd.h"

namespace host {

// Whoever serves a port, as far as a simulated device needs to know it.
class PortServer {
public:
    virtual ~PortServer() = default;
    // Serves the client at the other end of the socket.
    virtual void addIncoming(UniqueFd socket) = 0;
};

// The ports that are served on a simulated device, by "appid:port". They take the place of the
// socket files in the runtime directory.

// Returns false if the name is served already. Throws std::bad_alloc.
bool addSimulatedPort(const std::string &name, std::weak_ptr<PortServer> server);
void removeSimulatedPort(const std::string &name);

// Fails like connectToPort(), with ENOENT if nobody serves the name.
UniqueFd connectToSimulatedPort(const std::string &name);

} // namespace host
