/* One-shot timers on the host's event loop.
 *
 * A callback runs on the loop, one at a time with every other callback of the
 * host, never from inside the call that armed it. A module cannot cancel a
 * timer. The host cancels those that are armed before it unloads the module, so
 * none fires into code that is gone.
 */
#ifndef TQ_THREAD_H
#define TQ_THREAD_H

#include <sys/time.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TQ_THREAD_TIMER_COUNT_MAX 1024u    /* timers armed at a time on one master */
#define TQ_THREAD_INTERVAL_S_MAX 315360000 /* longest interval, ten years, in seconds */

struct tq_thread_master;

/* Handed to a timer callback; valid until the callback returns. */
typedef struct tq_thread {
    void *arg; /* the argument given when the timer was armed */
} tq_thread_t;

typedef int (*tq_thread_func_t)(tq_thread_t *thread); /* the result is ignored */

/* Arms a timer that fires once.
 * master:   the event-loop master of the global context
 * func:     called once when the interval is over; not null
 * arg:      handed over in the callback's tq_thread_t; may be null
 * interval: 0 to TQ_THREAD_INTERVAL_S_MAX seconds and 0 to 999999 microseconds
 *           from now; read during the call only
 * name:     for listings; copied; may be null
 * Returns the timer, owned by the host and freed after its callback, or null
 * where master, func or interval is missing, the interval is out of range, or
 * TQ_THREAD_TIMER_COUNT_MAX timers are armed. */
tq_thread_t *tq_thread_add_timer_timeval_withname(struct tq_thread_master *master, tq_thread_func_t func, void *arg,
                                                  const struct timeval *interval, const char *name);

#ifdef __cplusplus
}
#endif
#endif
