/* SPDX-License-Identifier: Apache-2.0 */
#ifndef NELVO_H
#define NELVO_H

/**
 * @file
 * Lets a Nelvo client drive this application.
 *
 * A client sends a request. The library calls the callback that the application registered for it,
 * with an action handler that stands for the request; the application reports the outcome with that
 * handler, from inside the callback or later, and the client gets the answer. A request without an
 * outcome after 30 seconds is answered with a failure.
 *
 * One request is pending at a time: a newer one, of either kind and from any client, overtakes the
 * pending one, which is then not answered at all.
 *
 * Everything happens on one thread, that of the application's Ecore main loop: the library calls
 * the callbacks there, and every function below must be called there. Each of them may be called
 * from inside a callback. None of them blocks. A callback must neither throw, which becomes an error
 * line in the log while the request stays pending, nor end its thread. The first call in a process decides whether the
 * application's SDK version is supported; it needs the application's id and manifest.
 */

#include <bundle.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NELVO_API __attribute__((visibility("default")))

/** What the functions return. Failures are also explained in the platform log. */
typedef enum {
    NELVO_ERROR_NONE = 0,                      /**< done */
    NELVO_ERROR_OUT_OF_MEMORY = -12,           /**< there is no memory for it */
    NELVO_ERROR_INVALID_PARAMETER = -22,       /**< an argument that the function does not take */
    NELVO_ERROR_NOT_SUPPORTED = -1073741822,   /**< by the SDK version in the manifest */
    NELVO_ERROR_OPERATION_FAILED = -1073741825 /**< anything else; see the function */
} nelvo_error_e;

/**
 * Performs an action that a client asked for.
 *
 * Report the outcome with nelvo_complete_action_execution(), now or within 30 seconds.
 *
 * @param action_handler  stands for this request; stays the library's, never to be freed. Handlers
 *                        are used again after 100 requests, and from the first on after
 *                        nelvo_deinitialize(): forget it once the outcome is reported, and at a stop
 * @param params          the request as the client sent it: "actionId", usually "actionParams", and
 *                        whatever else it holds; valid during this call only, not to be changed
 * @param user_data       what was given at registration
 */
typedef void (*nelvo_action_execution_cb)(void *action_handler, bundle *params, void *user_data);

/**
 * Tells a client the state of the application.
 *
 * Report it with nelvo_complete_app_state_request(), now or within 30 seconds.
 *
 * @param action_handler  stands for this request, as for nelvo_action_execution_cb
 * @param user_data       what was given at registration
 */
typedef void (*nelvo_app_state_request_cb)(void *action_handler, void *user_data);

/**
 * Starts the library: from now on clients can connect.
 *
 * Call it once, when the main loop is about to run, and register the callbacks afterwards. A second
 * call changes nothing and succeeds. May be called again after nelvo_deinitialize().
 *
 * Main-loop thread only.
 *
 * @return NELVO_ERROR_NONE              started, or was already
 *         NELVO_ERROR_NOT_SUPPORTED     the manifest has no SDK-version metadata entry, or one of
 *                                       an unsupported version; correct the manifest, trying again
 *                                       in this process is of no use
 *         NELVO_ERROR_OUT_OF_MEMORY     not started; try again when there is memory
 *         NELVO_ERROR_OPERATION_FAILED  the platform refused the port; not started. See the log,
 *                                       try again later
 */
NELVO_API int nelvo_initialize(void);

/**
 * Stops the library: drops every registration and the pending request, unanswered, and disconnects
 * the clients.
 *
 * Call it before the application ends. Without a preceding nelvo_initialize() it changes nothing
 * and succeeds. The bundle of a callback that is running stays valid until that callback returns.
 *
 * Main-loop thread only.
 *
 * @return NELVO_ERROR_NONE              stopped, or was not started
 *         NELVO_ERROR_OUT_OF_MEMORY     the library could not even be created; nothing to stop
 *         NELVO_ERROR_OPERATION_FAILED  the platform failed in an unforeseen way; see the log
 */
NELVO_API int nelvo_deinitialize(void);

/**
 * Registers the callback for app state requests, in place of an earlier one.
 *
 * Call it after nelvo_initialize(); until then, and after an unset, such requests are answered with
 * a failure at once.
 *
 * @param callback   null removes the registration
 * @param user_data  passed to the callback unchanged; stays the application's, keep it valid while
 *                   registered
 *
 * Main-loop thread only.
 *
 * @return NELVO_ERROR_NONE              registered
 *         NELVO_ERROR_OPERATION_FAILED  not initialised; call nelvo_initialize() first
 *         NELVO_ERROR_OUT_OF_MEMORY     not registered; try again when there is memory
 */
NELVO_API int nelvo_set_app_state_request_cb(nelvo_app_state_request_cb callback, void *user_data);

/**
 * Removes the callback for app state requests, if there is one.
 *
 * A request whose callback has been called can still be completed.
 *
 * Main-loop thread only.
 *
 * @return NELVO_ERROR_NONE              no callback is registered any more
 *         NELVO_ERROR_OPERATION_FAILED  not initialised; nothing is registered then
 *         NELVO_ERROR_OUT_OF_MEMORY     the library could not even be created; nothing is
 *                                       registered
 */
NELVO_API int nelvo_unset_app_state_request_cb(void);

/**
 * Reports the state of the application to the client that asked for it.
 *
 * Call it once per request, from inside your callback or within 30 seconds.
 *
 * @param action_handler  the handler given to your callback, and no other pointer
 * @param app_context     text for the client, copied before the call returns; null is sent as
 *                        "null"
 *
 * Main-loop thread only.
 *
 * @return NELVO_ERROR_NONE               accepted, or nobody was waiting for it any more. Whether
 *                                        the client could be reached is told by the log alone
 *         NELVO_ERROR_INVALID_PARAMETER  not a handler that the library gave out; nothing was sent
 *         NELVO_ERROR_OPERATION_FAILED   not initialised, no client has sent a request yet, or the
 *                                        request has already been answered; nothing was sent
 *         NELVO_ERROR_OUT_OF_MEMORY      the answer could not be built; the client gets none
 */
NELVO_API int nelvo_complete_app_state_request(void *action_handler, const char *app_context);

/**
 * Registers the callback for one action, in place of an earlier one.
 *
 * Call it after nelvo_initialize(). A request that arrives up to about 0.1 seconds before its
 * registration is kept and then delivered; one that waits longer is answered with a failure.
 *
 * @param action_id  the action, as clients name it; copied. "getAppContext" is never delivered here
 * @param callback   null removes the registration
 * @param user_data  passed to the callback unchanged; stays the application's, keep it valid while
 *                   registered
 *
 * Main-loop thread only.
 *
 * @return NELVO_ERROR_NONE               registered, or removed for a null callback
 *         NELVO_ERROR_INVALID_PARAMETER  action_id is null; or there was no memory for the
 *                                        registration: then the earlier one, if any, still holds
 *         NELVO_ERROR_OPERATION_FAILED   not initialised; call nelvo_initialize() first
 *         NELVO_ERROR_OUT_OF_MEMORY      not registered, an earlier registration still holds; try
 *                                        again when there is memory
 */
NELVO_API int nelvo_set_action_execution_cb(const char *action_id,
                                            nelvo_action_execution_cb callback, void *user_data);

/**
 * Removes the callback of one action, if there is one.
 *
 * A request whose callback has been called can still be completed.
 *
 * @param action_id  the action, as it was registered
 *
 * Main-loop thread only.
 *
 * @return NELVO_ERROR_NONE               no callback is registered for the action any more
 *         NELVO_ERROR_INVALID_PARAMETER  action_id is null
 *         NELVO_ERROR_OPERATION_FAILED   not initialised; nothing is registered then
 *         NELVO_ERROR_OUT_OF_MEMORY      nothing was changed; try again when there is memory
 */
NELVO_API int nelvo_unset_action_execution_cb(const char *action_id);

/**
 * Reports the outcome of an action to the client that asked for it.
 *
 * Call it once per request, from inside your callback or within 30 seconds. A report that comes
 * later, or after a newer request, is harmless and sends nothing.
 *
 * @param action_handler  the handler given to your callback, and no other pointer
 * @param result          text for the client, copied before the call returns; null is sent as
 *                        "null"
 *
 * Main-loop thread only.
 *
 * @return NELVO_ERROR_NONE               sent, or nobody was waiting for it any more
 *         NELVO_ERROR_INVALID_PARAMETER  not a handler that the library gave out; nothing was sent
 *         NELVO_ERROR_OPERATION_FAILED   not initialised, no client has sent a request yet, the
 *                                        wait for the outcome has already ended, or the client
 *                                        could not be reached; there is nothing to do but to read
 *                                        the log
 *         NELVO_ERROR_OUT_OF_MEMORY      the answer could not be built; the client gets none
 */
NELVO_API int nelvo_complete_action_execution(void *action_handler, const char *result);

/**
 * Tells which action a handler stands for, so that one callback can serve several.
 *
 * Works for the handler of the latest request, until it is answered or overtaken.
 *
 * @param action_handler  the handler given to your callback
 * @param action_id       receives a copy of the action id, which the caller releases with free();
 *                        null with NELVO_ERROR_OPERATION_FAILED, and also with NELVO_ERROR_NONE
 *                        when there is no memory for the copy; left alone otherwise
 *
 * Main-loop thread only.
 *
 * @return NELVO_ERROR_NONE               found
 *         NELVO_ERROR_INVALID_PARAMETER  action_id is null
 *         NELVO_ERROR_OPERATION_FAILED   the handler stands for no request any more, or never did
 *         NELVO_ERROR_OUT_OF_MEMORY      nothing was looked up; try again when there is memory
 */
NELVO_API int nelvo_get_action_name(void *action_handler, char **action_id);

#ifdef __cplusplus
}
#endif

#endif
