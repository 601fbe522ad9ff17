// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#include "unique_fd.h"

namespace host {

// A served port's place in the file system: a listening socket "<appid>:<port>" in the user's
// runtime directory, and beside it a lock file that is held while it is served.
//
// The lock, not the socket, says whether the server lives: the system drops it with the process.
// The lock file stays behind, for a file that is removed while somebody waits for it locks nothing.
class ListenSocket {
public:
    ListenSocket() = default;
    ListenSocket(const ListenSocket &) = delete;
    ListenSocket &operator=(const ListenSocket &) = delete;
    ~ListenSocket() { close(); }

    // False after a log line that says why.
    bool open(const std::string &appId, const std::string &port);
    void close();
    int fd() const { return _socket.get(); }

private:
    std::string _path; // empty: there is no socket file of ours
    UniqueFd _lock;
    UniqueFd _socket;
};

// Connects to a served port. On failure no descriptor, and errno: ECONNREFUSED or ENOENT when
// nobody serves it, EACCES when another user does, another value otherwise. 0 stands for a failure
// that has been logged.
UniqueFd connectToPort(const std::string &appId, const std::string &port);

// Whether the process at the other end of the socket belongs to our user.
bool isSameUser(int socket);

} // namespace host
