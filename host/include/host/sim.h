/* SPDX-License-Identifier: Apache-2.0 */
#ifndef HOST_SIM_H
#define HOST_SIM_H

#include <host/export.h>
#include <rpc-port.h>

#ifdef __cplusplus
extern "C" {
#endif

/**
 * Turns the process into a simulated device, for tests: time stands still until host_sim_advance()
 * moves it, clients connect to applications inside the same process (no runtime directory, no
 * socket in the file system), and events come in the same order in every run.
 *
 * Call it before any other function of the platform; there is no way back.
 */
HOST_API void host_sim_start(void);

/**
 * Lets the given time pass. Delivers every event and timer that becomes due, in order, and sets the
 * clock to the moment of each. 0 delivers what is due now: afterwards no byte is in flight and no
 * timer is due. May be called from inside a callback.
 */
HOST_API void host_sim_advance(double seconds);

/** The simulated time in seconds since host_sim_start(). */
HOST_API double host_sim_now(void);

/** How many timers exist, for leak checks. */
HOST_API int host_sim_timer_count(void);

/**
 * Installs the application's manifest from text instead of the file; NULL uninstalls it, so that
 * the application has no id. Copied. Also works without host_sim_start().
 */
HOST_API void host_sim_set_manifest(const char *xml);

/** The app id that this proxy presents when it connects, instead of the process's own. Copied. */
HOST_API void host_sim_set_sender(rpc_port_proxy_h proxy, const char *app_id);

/** Receives the sentence of an error line about a mistake in the use of the platform. */
typedef void (*host_misuse_cb)(const char *sentence);

/**
 * Tells cb of each mistake that the platform notices: a bundle that is used after it has been freed, a
 * call from another thread than the main loop's, a timer that is deleted twice. NULL ends that.
 *
 * Meanwhile each bundle owns all of its memory, so that a memory checker notices more.
 */
HOST_API void host_sim_on_misuse(host_misuse_cb cb);

#ifdef __cplusplus
}
#endif

#endif
