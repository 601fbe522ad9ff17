/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_APP_ID_H
#define HOST_APP_ID_H

#include <host/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Gives this process an application id, whatever the environment and the manifest say.
 *
 * For clients that have no manifest: it is the id that applications see. Connections that exist
 * already keep theirs.
 *
 * @param id  1 to 127 letters, digits, '.', '_' and '-', not beginning with '.' or '-', without
 *            ".."; copied
 *
 * @return 0; APP_ERROR_INVALID_PARAMETER for any other id; APP_ERROR_OUT_OF_MEMORY. When it is not
 *         0 nothing has changed.
 */
HOST_API int host_set_app_id(const char *id);

#ifdef __cplusplus
}
#endif

#endif
