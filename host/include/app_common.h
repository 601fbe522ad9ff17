/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_APP_COMMON_H
#define HOST_APP_COMMON_H

#include <host/export.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    APP_ERROR_NONE = 0,
    APP_ERROR_OUT_OF_MEMORY = -12,
    APP_ERROR_INVALID_PARAMETER = -22,
    APP_ERROR_INVALID_CONTEXT = -1000 /**< the process is not an application: it has no id */
} app_error_e;

/**
 * The id of the application that this process is.
 *
 * It is the value of the environment variable NELVO_HOST_APP_ID when that is set and not empty, or
 * else the id of the first application in the manifest (see app_info.h). Once found, the id stays
 * the same until host_sim_set_manifest() is called. An id from host_set_app_id() never changes.
 *
 * @param id  receives the text, the caller's to free(); untouched on failure
 *
 * @return APP_ERROR_NONE
 *         APP_ERROR_INVALID_PARAMETER  id is null
 *         APP_ERROR_INVALID_CONTEXT    neither names a valid id; the log says what to do
 *         APP_ERROR_OUT_OF_MEMORY
 */
HOST_API int app_get_id(char **id);

#ifdef __cplusplus
}
#endif

#endif
