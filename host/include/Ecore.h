/* SPDX-License-Identifier: Apache-2.0 */
#ifndef ECORE_H
#define ECORE_H

#include <host/export.h>

/*
 * The main loop: timers and watched descriptors, delivered on one thread.
 *
 * Everything here belongs to the thread that runs the loop, and everything may be called from
 * inside any callback: handlers and timers may be added and deleted, the running one included, and
 * the loop may be iterated again.
 */

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned char Eina_Bool;

#define EINA_FALSE ((Eina_Bool)0)
#define EINA_TRUE ((Eina_Bool)1)

/** Returned by a callback: delete its timer or handler. */
#define ECORE_CALLBACK_CANCEL EINA_FALSE
/** Returned by a callback: call it again. */
#define ECORE_CALLBACK_RENEW EINA_TRUE

typedef struct _Ecore_Timer Ecore_Timer;
typedef struct _Ecore_Fd_Handler Ecore_Fd_Handler;

typedef Eina_Bool (*Ecore_Task_Cb)(void *data);
typedef Eina_Bool (*Ecore_Fd_Cb)(void *data, Ecore_Fd_Handler *fd_handler);

/** What a descriptor is watched for. Errors and hang-ups are reported as each of these. */
typedef enum { ECORE_FD_READ = 1, ECORE_FD_WRITE = 2, ECORE_FD_ERROR = 4 } Ecore_Fd_Handler_Flags;

/** Initializes the main loop. Calls are counted. @return the new count, 0 on a system error */
HOST_API int ecore_init(void);

/**
 * Undoes one ecore_init(). The last call deletes the remaining timers and handlers and cancels a
 * requested quit. @return the new count
 */
HOST_API int ecore_shutdown(void);

/** Runs the loop until ecore_main_loop_quit(). On a simulated device: until nothing is left to do.
 */
HOST_API void ecore_main_loop_begin(void);

/** Lets the innermost ecore_main_loop_begin() return once this round of callbacks is over. */
HOST_API void ecore_main_loop_quit(void);

/** Delivers what is due now, without waiting: each timer and each descriptor at most once. */
HOST_API void ecore_main_loop_iterate(void);

/** The loop's clock in seconds; it never goes back. */
HOST_API double ecore_time_get(void);

/**
 * Calls func after the given time, and again after each further one as long as it answers
 * ECORE_CALLBACK_RENEW.
 *
 * A late call does not delay the following ones, unless more than a whole interval was missed.
 * Timers with equal deadlines are called in the order in which they were added.
 *
 * @param in  seconds; 0 or less: as soon as the loop runs, and then a microsecond later each time
 * @return the timer, which stays the loop's; null when in is not a number, func is null or memory
 *         ran out
 */
HOST_API Ecore_Timer *ecore_timer_add(double in, Ecore_Task_Cb func, const void *data);

/**
 * Deletes a timer; its callback is not called any more. Returning ECORE_CALLBACK_CANCEL from the
 * callback has deleted the timer already.
 *
 * @return the data pointer given to ecore_timer_add(); null if timer is not valid
 */
HOST_API void *ecore_timer_del(Ecore_Timer *timer);

/**
 * Watches a descriptor and calls func while it is ready. The descriptor stays the caller's; delete
 * the handler before it is closed.
 *
 * @param flags     any of ECORE_FD_READ, ECORE_FD_WRITE, ECORE_FD_ERROR
 * @param buf_func  null, or asked before each wait whether the caller holds data that it has read
 *                  already; if it answers true, func is called as if the descriptor were readable
 * @return the handler, which stays the loop's; null when the descriptor cannot be watched (it is
 *         closed, has a handler already, or is a plain file), an argument is wrong or memory ran out
 */
HOST_API Ecore_Fd_Handler *ecore_main_fd_handler_add(int fd, Ecore_Fd_Handler_Flags flags,
                                                     Ecore_Fd_Cb func, const void *data,
                                                     Ecore_Fd_Cb buf_func, const void *buf_data);

/**
 * Deletes a handler; its callbacks are not called any more. Returning ECORE_CALLBACK_CANCEL from
 * func has deleted the handler already.
 *
 * @return the data pointer given to ecore_main_fd_handler_add(); null if fd_handler is not valid
 */
HOST_API void *ecore_main_fd_handler_del(Ecore_Fd_Handler *fd_handler);

/** Inside func: whether the descriptor is ready for one of these. Elsewhere false. */
HOST_API Eina_Bool ecore_main_fd_handler_active_get(Ecore_Fd_Handler *fd_handler,
                                                    Ecore_Fd_Handler_Flags flags);

/** Changes what the descriptor is watched for from now on. */
HOST_API void ecore_main_fd_handler_active_set(Ecore_Fd_Handler *fd_handler,
                                               Ecore_Fd_Handler_Flags flags);

#ifdef __cplusplus
}
#endif

#endif
