/* SPDX-License-Identifier: Apache-2.0 */
/* Compiled only: the public header stands alone in C. */
#include <nelvo.h>

static void on_action(void *action_handler, bundle *params, void *user_data) {
    (void)params;
    (void)nelvo_complete_action_execution(action_handler, (const char *)user_data);
}

int use_every_function(void);
int use_every_function(void) {
    nelvo_action_execution_cb callback = on_action;
    char *name = 0;
    return nelvo_initialize() + nelvo_set_action_execution_cb("a", callback, 0) +
           nelvo_unset_action_execution_cb("a") + nelvo_set_app_state_request_cb(0, 0) +
           nelvo_unset_app_state_request_cb() + nelvo_complete_app_state_request(0, 0) +
           nelvo_get_action_name(0, &name) + nelvo_deinitialize() +
           (NELVO_ERROR_NOT_SUPPORTED == -1073741822) +
           (NELVO_ERROR_OPERATION_FAILED == -1073741825);
}
