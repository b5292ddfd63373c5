/* The host's global context, and the way to ask the host to finish.
 *
 * The host owns the context and keeps it alive for as long as a module is
 * loaded. A module treats it as opaque, except for the event-loop master in
 * its second word, on which it arms timers (tq_thread.h).
 */
#ifndef TQ_GLOBAL_H
#define TQ_GLOBAL_H

#ifdef __cplusplus
extern "C" {
#endif

struct tq_thread_master;

typedef struct tq_global {
    void *host;                      /* the host's own; a module never reads it */
    struct tq_thread_master *master; /* event-loop master for timers; never null */
} tq_global_t;

/* Called by a module that cannot go on, shortly before it ends the process:
 * the host flushes its log and finishes the context. ctx: the global context;
 * null is ignored. Returns; the process is still running afterwards. */
void tq_global_finish(void *ctx);

#ifdef __cplusplus
}
#endif
#endif
