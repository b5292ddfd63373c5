/* Aging: joined automatic ports without voice devices leave after a time.
 */
#ifndef UDP_VVLAN_AGE_H
#define UDP_VVLAN_AGE_H

#include "tq_thread.h"
#include "udp_vvlan_port.h"

#include <stdint.h>

extern "C" {

/* Arms the timer, once, at first start. */
int udp_vvlan_timer_init(void);

/* The timer's callback: scans the ports and arms the timer again. */
int udp_vvlan_timer_scan(tq_thread_t *thread);

/* Walk callback of the scan. */
int udp_vvlan_timer_ops(vvlan_port_t *port, void *arg);
}

#endif
