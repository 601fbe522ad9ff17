/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_MANIFEST_H
#define HOST_MANIFEST_H

#include <app_info.h>
#include <host/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Looks an application up in any manifest file, for tools that look at other processes. Neither
 * this process's own manifest nor its application id changes, and nothing is logged.
 *
 * @param path      the manifest file
 * @param app_id    the application's id
 * @param app_info  receives a handle as app_info_create() gives it. Untouched on failure
 *
 * @return APP_MANAGER_ERROR_NONE
 *         APP_MANAGER_ERROR_INVALID_PARAMETER  an argument is null
 *         APP_MANAGER_ERROR_NO_SUCH_APP        the file cannot be read, is not a valid manifest, or
 *                                              does not contain the application
 *         APP_MANAGER_ERROR_OUT_OF_MEMORY
 */
HOST_API int host_manifest_find_app(const char *path, const char *app_id, app_info_h *app_info);

#ifdef __cplusplus
}
#endif

#endif
