/* Decoders: each record of the four subscriptions is checked completely here
 * before it reaches a handler.
 */
#ifndef UDP_VVLAN_EVENT_H
#define UDP_VVLAN_EVENT_H

#include "tq_mom.h"

#include <stdint.h>

extern "C" {

/* 0; -4 for a malformed record, which changes nothing; -20 for an operation
 * that is not handled; otherwise the handler's or the store's code. tag is
 * looked at by the global-configuration decoder alone. */
int udp_vvlan_event_set_oui_cfg(void *ctx, tq_mom_record_t *record, uint32_t tag);
int udp_vvlan_event_set_glb_cfg(void *ctx, tq_mom_record_t *record, uint32_t tag);
int udp_vvlan_event_set_port_cfg(void *ctx, tq_mom_record_t *record, uint32_t tag);
int udp_vvlan_event_set_port_noti(void *ctx, tq_mom_record_t *record, uint32_t tag);
}

#endif
