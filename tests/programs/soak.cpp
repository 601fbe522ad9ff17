// SPDX-License-Identifier: Apache-2.0
// `soak [REQUESTS [PLAYER]]`: so many requests over sockets, a million unless given, and ten times as
// many in virtual time; then the main loop of the example player, when it is named.

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "main_loop.h"
#include "soak.h"

int main(int argc, char **argv) {
    using namespace nelvo::testkit::soak;
    const std::size_t requests = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 1000000;
    if (requests < 3000) {
        std::fprintf(stderr, "soak: a tenth of less than 3000 requests is no warm-up\n");
        return EXIT_FAILURE;
    }
    char folder[] = "soak-XXXXXX"; // relative: the path of a socket has little room
    if (!mkdtemp(folder) || setenv("NELVO_HOST_RUNTIME_DIR", folder, 1) != 0)
        return EXIT_FAILURE;
    bool holds = overSockets(requests);
    holds = inVirtualTime(10 * requests) && holds;
    if (argc > 2)
        holds = keepsItsMainLoop(argv[2]) && holds;
    std::filesystem::remove_all(folder);
    std::printf("soak: %s\n", holds ? "everything held" : "see what is WRONG above");
    return holds ? EXIT_SUCCESS : EXIT_FAILURE;
}
