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
 * For clients without a manifest. Applications see this id as the sender of connections that are
 * made from now on.
 *
 * @param id  1 to 127 letters, digits, '.', '_' and '-', not beginning with '.' or '-', without
 *            ".."; copied
 *
 * @return 0; APP_ERROR_INVALID_PARAMETER for any other id; APP_ERROR_OUT_OF_MEMORY. On
 *         failure nothing has changed.
 */
HOST_API int host_set_app_id(const char *id);

#ifdef __cplusplus
}
#endif

#endif
