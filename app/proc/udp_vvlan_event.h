/* Decoders: every record of the four subscriptions is checked here completely
 * before it reaches a handler.
 */
#ifndef UDP_VVLAN_EVENT_H
#define UDP_VVLAN_EVENT_H

#include "tq_mom.h"

#include <stdint.h>

/* Field numbers of p_bridge.vvlan_glb_cfg: the tags of its subscriptions. */
constexpr uint32_t VVLAN_GLB_FIELD_SWITCH = 5;
constexpr uint32_t VVLAN_GLB_FIELD_SECU_MODE = 6;
constexpr uint32_t VVLAN_GLB_FIELD_AGE_TIME = 7;
constexpr uint32_t VVLAN_GLB_FIELD_QOS = 8;

extern "C" {

/* 0; -4 for a malformed record, which changes nothing; -20 for an operation
 * that is not handled; otherwise the handler's or the store's code. tag is
 * looked at by the global-configuration decoder alone. */
int udp_vvlan_event_set_oui_cfg(void *ctx, tq_mom_record_t *record, uint32_t tag);
int udp_vvlan_event_set_glb_cfg(void *ctx, tq_mom_record_t *record, uint32_t tag);
int udp_vvlan_event_set_port_cfg(void *ctx, tq_mom_record_t *record, uint32_t tag);
int udp_vvlan_event_set_port_noti(void *ctx, tq_mom_record_t *record, uint32_t tag);

/* Checks that every decoder begins with: a record, and no store error. -4, with
 * its log line, otherwise. */
int udp_vvlan_event_check(const tq_mom_record_t *record);
}

#endif
