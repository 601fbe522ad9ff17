// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include <sys/types.h>

// What every measured program shares: one process serves, another makes round trips to it, one at a
// time, and both run on one core. Whatever fails ends the program with a message.
namespace bench {

struct Options {
    std::string folder;        // empty, for sockets
    std::size_t payload = 200; // bytes that travel each way
    int warmUp = 200;
    int requests = 2000;
    int idle = 0; // further clients that are connected and do nothing
};

// The client's end of a connection.
class Client {
public:
    virtual ~Client() = default;
    // Sends the payload and waits until as much has come back.
    virtual void roundTrip() = 0;
    // Makes the server end; it is waited for afterwards.
    virtual void stopServer(pid_t server);
};

struct Peer {
    // Serves whoever connects, through sockets in the folder. Calls reportReady() when that is
    // possible, and need not return.
    void (*serve)(const Options &options, int readyFd);
    std::unique_ptr<Client> (*connect)(const Options &options);
};

// The main function of a measured program; prints one JSON object.
int run(int argc, char **argv, const Peer &peer);

void pinToOneCore();

[[noreturn]] void die(const std::string &what);

// Whatever is asked of anybody has to work; of the system, errno says why it did not.
void require(bool worked, const char *what);
void check(bool worked, const char *what);

std::string text(std::size_t size);

// What the system says about a process's memory, KiB.
struct Memory {
    long peak = 0;         // most that was resident at any time
    long resident = 0;     // now
    long privateDirty = 0; // its own, changed
};
Memory memoryOf(pid_t process);

} // namespace bench
