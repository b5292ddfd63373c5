/* Synchronisation with the object store: the four subscriptions, the start-up
 * cycles that their establishment starts, and the one callback behind both.
 */
#ifndef UDP_VVLAN_DS_H
#define UDP_VVLAN_DS_H

#include "tq_mom.h"

#include <stdint.h>

/* What to do for one subscription; the user argument of its calls to the store.
 * The handlers begin, scan and over receive the entry as their last argument. */
typedef struct vvlan_ds_entry {
    tq_mom_callback_t begin;                                        /* the subscription is established */
    tq_mom_callback_t scan;                                         /* a data-sync cycle is open */
    tq_mom_callback_t over;                                         /* a scan has delivered its last record */
    int (*event)(void *ctx, tq_mom_record_t *record, uint32_t tag); /* one record */
    uint32_t tag; /* field number, for field subscriptions; otherwise 0 */
} vvlan_ds_entry_t;

extern "C" {

/* Makes the four subscriptions; 0 or the result of the first that fails. */
int udp_vvlan_ds_init(void *ctx, const char *name);

/* The callback of every subscription, scan and cycle here. -1 without an entry
 * and at the end of a scan without a last record. */
int udp_vvlan_ds_callback(void *ctx, tq_mom_record_t *record, void *entry);

int udp_vvlan_ds_nop(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_pexpire_oui_cfg(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_scan_oui_cfg(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_del_pexpire_oui_cfg(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_pexpire_port_cfg(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_scan_port_cfg(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_del_pexpire_port_cfg(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_scan_glb_cfg(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_glb_cfg_over(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_scan_port_noti(void *ctx, tq_mom_record_t *record, void *entry);
int udp_vvlan_ds_port_noti_over(void *ctx, tq_mom_record_t *record, void *entry);
}

#endif
