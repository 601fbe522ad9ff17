// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "unique_fd.h"

namespace host {

// A listening socket "<appid>:<port>" in the user's runtime directory, and a lock file beside it,
// which is locked while the port is served.
//
// The lock tells whether the server is alive: the system releases it when the process ends, while
// the socket file stays. The lock file is never removed, since another process may have opened it
// already and would then lock a file that nobody else sees.
class ListenSocket {
public:
    ListenSocket() = default;
    ListenSocket(const ListenSocket &) = delete;
    ListenSocket &operator=(const ListenSocket &) = delete;
    ~ListenSocket() { close(); }

    // Returns false on failure; the reason has been logged.
    bool open(const std::string &appId, const std::string &port);
    void close();
    int fd() const { return _socket.get(); }

private:
    std::string _path; // empty: no socket file has been created
    ParentsFd _lock;
    ParentsFd _socket;
};

// Whether this process or the system lacks what a connection takes. The peer is not to blame then.
bool isShortage(int error);

// Connects to a served port. On failure returns no descriptor and sets errno: ECONNREFUSED or
// ENOENT if nobody serves the port, EACCES if another user does, EAGAIN if its backlog is full, a
// shortage, 0 if the runtime directory cannot be used, which has been logged.
UniqueFd connectToPort(const std::string &appId, const std::string &port);

// Whether the process at the other end of the socket belongs to our user.
bool isSameUser(int socket);

} // namespace host
