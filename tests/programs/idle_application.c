/* SPDX-License-Identifier: Apache-2.0 */
/* Runs without listening: it never initialises the library, or, given an argument, goes on whatever
 * comes of it. */
#include <stdio.h>

#include <Ecore.h>
#include <nelvo.h>

int main(int argc, char **argv) {
    (void)argv;
    ecore_init();
    if (argc > 1 && nelvo_initialize() == NELVO_ERROR_NONE)
        return 1;
    fputs("idle\n", stderr);
    ecore_main_loop_begin();
    return 0;
}
