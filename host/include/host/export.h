/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_EXPORT_H
#define HOST_EXPORT_H

/** Marks what the host platform's shared library exports; everything else in it is hidden. */
#define HOST_API __attribute__((visibility("default")))

#endif
