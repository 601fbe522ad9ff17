/* SPDX-License-Identifier: Apache-2.0 */
/* idle_application [once|initialise]: runs without listening. Given "once" it initialises the library
 * and ends, with exit code 1 if that failed; given "initialise" it runs on after the failure. */
#include <stdio.h>

#include <Ecore.h>
#include <nelvo.h>

int main(int argc, char **argv) {
    ecore_init();
    const int failed = argc > 1 && nelvo_initialize() != NELVO_ERROR_NONE;
    if (argc > 1 && argv[1][0] == 'o') {
        nelvo_deinitialize();
        return failed;
    }
    fputs("idle\n", stderr);
    ecore_main_loop_begin();
    return 0;
}
