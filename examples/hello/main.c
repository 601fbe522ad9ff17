/* SPDX-License-Identifier: Apache-2.0 */
#include <stdio.h>

#include <Ecore.h>
#include <nelvo.h>

static void greet(void *action_handler, bundle *params, void *user_data) {
    char *name = NULL;
    char greeting[100];
    (void)user_data;
    if (bundle_get_str(params, "actionParams", &name) != BUNDLE_ERROR_NONE)
        name = "world";
    snprintf(greeting, sizeof greeting, "Hello, %s!", name);
    nelvo_complete_action_execution(action_handler, greeting);
}

int main(void) {
    int error;
    ecore_init();
    error = nelvo_initialize();
    if (error == NELVO_ERROR_NONE)
        error = nelvo_set_action_execution_cb("greet", greet, NULL);
    if (error == NELVO_ERROR_NONE)
        ecore_main_loop_begin();
    nelvo_deinitialize();
    ecore_shutdown();
    return error == NELVO_ERROR_NONE ? 0 : 1;
}
