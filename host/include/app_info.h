/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_APP_INFO_H
#define HOST_APP_INFO_H

#include <stdbool.h>

#include <host/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * What the manifest says about one application.
 *
 * The manifest is the file that the environment variable NELVO_HOST_MANIFEST names, or else
 * tizen-manifest.xml beside the executable. It is read once, when it is first needed.
 */
typedef struct app_info_s *app_info_h;

typedef enum {
    APP_MANAGER_ERROR_NONE = 0,
    APP_MANAGER_ERROR_OUT_OF_MEMORY = -12,
    APP_MANAGER_ERROR_INVALID_PARAMETER = -22,
    APP_MANAGER_ERROR_NO_SUCH_APP = -1001
} app_manager_error_e;

/**
 * Looks an application up in the manifest.
 *
 * @param app_id    the application's id
 * @param app_info  receives a handle, the caller's to app_info_destroy(); it keeps its contents
 *                  whatever becomes of the manifest. Untouched on failure
 *
 * @return APP_MANAGER_ERROR_NONE
 *         APP_MANAGER_ERROR_INVALID_PARAMETER  an argument is null
 *         APP_MANAGER_ERROR_NO_SUCH_APP        the manifest has no such application, or there is no
 *                                              usable manifest
 *         APP_MANAGER_ERROR_OUT_OF_MEMORY
 */
HOST_API int app_info_create(const char *app_id, app_info_h *app_info);

/** Is called for one metadata entry; false stops. The texts are valid as long as the handle. */
typedef bool (*app_info_metadata_cb)(const char *metadata_key, const char *metadata_value,
                                     void *user_data);

/**
 * Calls callback for every metadata entry of the application, in the manifest's order, until it
 * returns false. An entry without a value has the empty text.
 *
 * @return APP_MANAGER_ERROR_NONE, or APP_MANAGER_ERROR_INVALID_PARAMETER when app_info or callback
 *         is null
 */
HOST_API int app_info_foreach_metadata(app_info_h app_info, app_info_metadata_cb callback,
                                       void *user_data);

/** Frees a handle. APP_MANAGER_ERROR_INVALID_PARAMETER for null. */
HOST_API int app_info_destroy(app_info_h app_info);

#ifdef __cplusplus
}
#endif

#endif
