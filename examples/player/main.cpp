// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <cstdio>

#include <sys/signalfd.h>
#include <unistd.h>

#include <Ecore.h>
#include <nelvo.h>

#include "player.h"
#include "remote.h"

namespace {

// A descriptor that becomes readable when the process is asked to end; -1 on failure. So signals
// are handled on the main loop, where every function may be called.
int watchSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0)
        return -1;
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

Eina_Bool signalledCb(void *, Ecore_Fd_Handler *) {
    ecore_main_loop_quit();
    return ECORE_CALLBACK_CANCEL;
}

int serve() {
    Player player;
    Remote remote(player);
    int error = nelvo_initialize();
    if (error == NELVO_ERROR_NONE)
        error = remote.registerAll();
    if (error == NELVO_ERROR_NONE)
        ecore_main_loop_begin();
    else
        std::fprintf(stderr, "player: cannot be driven, error %d; see the log above\n", error);
    nelvo_deinitialize();
    return error == NELVO_ERROR_NONE ? 0 : 1;
}

} // namespace

int main() {
    int signals = watchSignals();
    ecore_init();
    Ecore_Fd_Handler *handler =
        ecore_main_fd_handler_add(signals, ECORE_FD_READ, signalledCb, nullptr, nullptr, nullptr);
    int exitCode = 1;
    if (handler)
        exitCode = serve();
    else
        std::fprintf(stderr, "player: cannot watch for signals\n");
    ecore_shutdown();
    if (signals >= 0)
        close(signals);
    return exitCode;
}
