// SPDX-License-Identifier: Apache-2.0
// The application that is measured: answers "echo" at once with the request's parameters, and ends
// on "quit". Its argument is a descriptor: there it reports, when it can be driven, how many
// nanoseconds nelvo_initialize() took.
#include <cstdlib>

#include <Ecore.h>
#include <nelvo.h>

#include "../clock.h"

namespace {

void echo(void *handler, bundle *params, void *) {
    char *text = nullptr;
    if (bundle_get_str(params, "actionParams", &text) == BUNDLE_ERROR_NONE)
        nelvo_complete_action_execution(handler, text);
}

void quit(void *handler, bundle *, void *) {
    nelvo_complete_action_execution(handler, "");
    ecore_main_loop_quit();
}

} // namespace

int main(int argc, char **argv) {
    ecore_init();
    const std::int64_t start = bench::now();
    const int initialized = nelvo_initialize();
    const std::int64_t taken = bench::now() - start;
    const bool serves = initialized == NELVO_ERROR_NONE &&
                        nelvo_set_action_execution_cb("echo", echo, nullptr) == NELVO_ERROR_NONE &&
                        nelvo_set_action_execution_cb("quit", quit, nullptr) == NELVO_ERROR_NONE &&
                        (argc < 2 || bench::reportReady(std::atoi(argv[1]), taken));
    if (serves)
        ecore_main_loop_begin();
    nelvo_deinitialize();
    ecore_shutdown();
    return serves ? 0 : 1;
}
