// SPDX-License-Identifier: Apache-2.0
#include "runtime_dir.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <dlog.h>
#include <host/runtime_dir.h>

#include "log_tag.h"

namespace host {

namespace {

constexpr int BACKLOG = 1024;

const char *ownVariable(const char *name, void *) {
    return std::getenv(name);
}

std::string runtimeDir(host_environment lookup, void *data) {
    std::string dir;
    if (const char *own = lookup("NELVO_HOST_RUNTIME_DIR", data); own && *own) {
        dir = own;
    } else if (const char *users = lookup("XDG_RUNTIME_DIR", data); users && *users) {
        dir = std::string(users) + "/nelvo";
    } else {
        dir = "/tmp/nelvo-" + std::to_string(geteuid());
    }
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back(); // with a slash at the end, a link would be followed
    return dir;
}

// Returns why the directory cannot be used, or null. Only its owner may have access to it: whoever
// can write to it can pose as an application.
const char *faultOf(const std::string &dir) {
    const UniqueFd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat state {};
    if (!fd || fstat(fd.get(), &state) != 0) {
        return errno == ENOTDIR || errno == ELOOP ? "it is a link or no directory"
                                                  : std::strerror(errno);
    }
    if (state.st_uid != geteuid())
        return "it belongs to another user";
    return (state.st_mode & 077) != 0 ? "other users may enter it" : nullptr;
}

bool prepareDir(const std::string &dir) {
    const bool made = mkdir(dir.c_str(), 0700) == 0 || errno == EEXIST;
    const char *const fault = made ? faultOf(dir) : std::strerror(errno);
    const int error = errno;
    if (fault && isShortage(error)) {
        dlog_print(DLOG_ERROR, LOG_TAG, "the runtime directory %s cannot be looked at: %s",
                   dir.c_str(), fault);
    } else if (fault) {
        dlog_print(DLOG_ERROR, LOG_TAG,
                   "the runtime directory %s cannot be used: %s; remove it, make it a directory of "
                   "your own with mode 0700, or name another one in NELVO_HOST_RUNTIME_DIR",
                   dir.c_str(), fault);
    }
    errno = error;
    return !fault;
}

bool findAddress(const std::string &appId, const std::string &port, sockaddr_un &address) {
    const std::string dir = runtimeDir(ownVariable, nullptr);
    const std::string path = dir + "/" + appId + ":" + port;
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof(address.sun_path)) {
        dlog_print(DLOG_ERROR, LOG_TAG,
                   "the socket path %s is too long: %zu bytes where %zu are possible; name a "
                   "shorter directory in NELVO_HOST_RUNTIME_DIR",
                   path.c_str(), path.size(), sizeof(address.sun_path) - 1);
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return prepareDir(dir);
}

UniqueFd openSocket() {
    return UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

const sockaddr *generic(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

// Sets errno on failure.
UniqueFd connectTo(const sockaddr_un &address) {
    UniqueFd fd = openSocket();
    while (fd && connect(fd.get(), generic(address), sizeof(address)) != 0) {
        const int error = errno;
        if (error != EINTR)
            fd.reset();
        errno = error;
    }
    return fd;
}

bool refuse(const sockaddr_un &address, const char *reason = std::strerror(errno)) {
    dlog_print(DLOG_ERROR, LOG_TAG, "cannot listen at %s: %s", address.sun_path, reason);
    return false;
}

// The probe is a connection to the other server, or empty if that server does not accept one.
bool refuseSecond(const std::string &appId, const std::string &port, const UniqueFd &probe) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (probe)
        getsockopt(probe.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size);
    const std::string process = peer.pid > 0 ? "process " + std::to_string(peer.pid) : "a process";
    dlog_print(DLOG_ERROR, LOG_TAG,
               "port \"%s\" of %s is served already, by %s; stop that one first", port.c_str(),
               appId.c_str(), process.c_str());
    return false;
}

// Removes the socket file if its server is dead. Returns false if the path is in use.
bool clearPath(const std::string &appId, const std::string &port, const sockaddr_un &address) {
    struct stat state {};
    if (lstat(address.sun_path, &state) != 0)
        return true; // bind() reports other reasons than that no file exists
    if (!S_ISSOCK(state.st_mode))
        return refuse(address, "there is something that is no socket; remove it");
    const UniqueFd probe = connectTo(address);
    if (probe || errno == EAGAIN)
        return refuseSecond(appId, port, probe);
    return (errno == ECONNREFUSED && unlink(address.sun_path) == 0) || refuse(address);
}

} // namespace

bool ListenSocket::open(const std::string &appId, const std::string &port) {
    sockaddr_un address{};
    if (!findAddress(appId, port, address))
        return false;
    std::string path = address.sun_path;
    constexpr int FLAGS = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    _lock.reset(::open((path + ".lock").c_str(), FLAGS, 0600));
    if (!_lock)
        return refuse(address);
    if (flock(_lock.get(), LOCK_EX | LOCK_NB) != 0)
        return refuseSecond(appId, port, connectTo(address));
    if (!clearPath(appId, port, address))
        return false;
    _socket.reset(openSocket().release());
    if (!_socket || bind(_socket.get(), generic(address), sizeof(address)) != 0)
        return refuse(address);
    _path = std::move(path);
    return ::listen(_socket.get(), BACKLOG) == 0 || refuse(address);
}

// Releases the lock last, so that no other server creates its socket before ours is removed. Without
// the lock this is a forked child, and the socket file is the parent's.
void ListenSocket::close() {
    if (_lock && !_path.empty())
        unlink(_path.c_str());
    _path.clear();
    _socket.reset();
    if (_lock)
        flock(_lock.get(), LOCK_UN); // for a child as well that has not closed its copy yet
    _lock.reset();
}

bool isShortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}

UniqueFd connectToPort(const std::string &appId, const std::string &port) {
    sockaddr_un address{};
    errno = 0;
    if (!findAddress(appId, port, address)) {
        errno = isShortage(errno) ? errno : 0;
        return UniqueFd();
    }
    UniqueFd fd = connectTo(address);
    if (fd && !isSameUser(fd.get())) {
        fd.reset();
        errno = EACCES;
    }
    return fd;
}

bool isSameUser(int socket) {
    ucred peer{};
    socklen_t size = sizeof(peer);
    return getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

} // namespace host

char *host_runtime_dir(host_environment lookup, void *data) {
    try {
        return strdup(host::runtimeDir(lookup ? lookup : host::ownVariable, data).c_str());
    } catch (...) {
        return nullptr;
    }
}
