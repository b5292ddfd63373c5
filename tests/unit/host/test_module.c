/* A module for the agent's tests: it has the entry points of the real one,
 * and leaves traces in the log. It is built several times, each time with one
 * fault or one habit that the agent has to handle: ZLOG_RESULT and HOOK_RESULT
 * are the results of two entry points, and the first timer sends TICK_SIGNAL to
 * the process (0: none). */
#include "ssat.h"
#include "tq_global.h"
#include "tq_mom.h"
#include "tq_thread.h"
#include "tq_zlog.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>

static tq_global_t *host;
static void *category;
static int ticks;

static void log_number(const char *what, int number)
{
    tqdf_zlog(category, __FILE__, strlen(__FILE__), __func__, strlen(__func__), __LINE__, TQ_ZLOG_INFO, "%s %d\n", what,
              number);
}

static int tick(tq_thread_t *thread)
{
    const struct timeval second = {1, 0};
    log_number(thread->arg, ++ticks);
    if (TICK_SIGNAL != 0) {
        raise(TICK_SIGNAL);
    }
    tq_thread_add_timer_timeval_withname(host->master, tick, thread->arg, &second, "tick");
    return 0;
}

static int on_connected(void *ctx, void *user)
{
    (void)user;
    log_number("connected", ctx == host);
    return 0;
}

static void say_hello(void)
{
    printf("hello\n");
}

int udp_vvlan_global_init(void *global)
{
    host = global;
    return 0;
}

int udp_vvlan_zlog_init(void)
{
    category = tq_zlog_init("test");
    return ZLOG_RESULT;
}

int udp_vvlan_at_init(void *a0, void *module, void *a2, void *a3)
{
    ssat_lib_init(a0, module, a2, a3);
    return ssat_reg_mod_cmd(module, "hello", 0, "void  :", say_hello);
}

int udp_vvlan_rdnd_aware_callback(void *role);
int udp_vvlan_rdnd_aware_callback(void *role)
{
    const struct timeval soon = {0, 1000};
    (void)role;
    tq_mom_client_connect(host, 4, on_connected, NULL);
    tq_thread_add_timer_timeval_withname(host->master, tick, "tick", &soon, "tick");
    return HOOK_RESULT;
}
