/* Port table, and the operations that move a port into and out of the voice
 * VLAN and keep its forwarding-plane state in line with that.
 */
#ifndef UDP_VVLAN_PORT_H
#define UDP_VVLAN_PORT_H

#include "udp_vvlan_hash.h"
#include "udp_vvlan_list.h"

#include <stdint.h>

/* One configured port. */
typedef struct vvlan_port {
    vvlan_list_t mac_list;  /* learned voice MACs (vvlan_mac_t::link) */
    uint32_t ifx;           /* interface index; key */
    uint32_t phyid;         /* physical port id, for the forwarding plane */
    uint32_t vvlan_en : 1;  /* configuration: enabled for the voice VLAN */
    uint32_t auto_mod : 1;  /* configuration: 1 automatic, 0 manual */
    uint32_t auto_join : 1; /* counts as joined, in automatic mode */
    uint32_t deny_en : 1;   /* its trap-to-CPU object is set */
    uint32_t mac_aged : 1;  /* has no learned voice MAC */
    uint32_t no_flw;        /* seconds joined without a voice MAC */
} vvlan_port_t;

/* One text for a port's bits, and one that adds its counter and the aging time. */
#define VVLAN_PORT_BITS_FORMAT "vvlan_en: %d, auto_mod: %d, deny_en: %d, mac_aged: %d, auto_join: %d, phyid: 0x%x,"
#define VVLAN_PORT_BITS_ARGS(port)                                                                                     \
    (port)->vvlan_en, (port)->auto_mod, (port)->deny_en, (port)->mac_aged, (port)->auto_join, (port)->phyid
#define VVLAN_PORT_STATE_FORMAT                                                                                        \
    "phyid=0x%x vvlan_en=%d  auto=%d  deny_en=%d  mac_aged=%d no_flw=%d auto_join=%d age_time=%d\n"
#define VVLAN_PORT_STATE_ARGS(port, age_time)                                                                          \
    (port)->phyid, (port)->vvlan_en, (port)->auto_mod, (port)->deny_en, (port)->mac_aged, (port)->no_flw,              \
        (port)->auto_join, (age_time)

struct vvlan_port_traits {
    using record = vvlan_port_t;
    static uint32_t hash(const record *key) { return udp_vvlan_hash_lookup2(key->ifx, 0, sizeof key->ifx); }
    static bool equal(const record *a, const record *b) { return a->ifx == b->ifx; }
    static void update(record *, const record *) {}
};

extern "C" {

VVLAN_HASH_DECLARE(port, vvlan_port_t);

int udp_vvlan_port_init(void);

vvlan_port_t *udp_vvlan_port_get(uint32_t ifx);

/* add 1: the record of the template's ifx, a new one being a copy with an
 * empty mac_list; null without memory. add 0: removes and frees it; null. */
vvlan_port_t *udp_vvlan_port_op(const vvlan_port_t *tmpl, uint32_t add);

/* ---- Operations; 0 or a code. Those with arg are walk callbacks: they ignore
 * it and answer 4 to a null record. ---- */

/* Applies the port's configuration. */
int udp_vvlan_port_cfg(vvlan_port_t *port, void *arg);

/* Drops the port's learned MACs. op is not used. */
int udp_vvlan_port_clear_mac(vvlan_port_t *port, uint32_t op);

/* At the end of a MAC scan: a port without MACs is marked so, in its bits alone. */
int udp_vvlan_port_mac(vvlan_port_t *port, void *arg);

/* no_flw 0, deny_en 0, auto_join 1, mac_aged 1. */
void udp_vvlan_port_mark_macless(vvlan_port_t *port);

/* Sets (add 1) or deletes the trap-to-CPU object. -11 when the write fails;
 * deny_en holds the request all the same. */
int udp_vvlan_port_set_trap(vvlan_port_t *port, uint32_t add);

/* Joins (add 1) or leaves the voice VLAN. */
int udp_vvlan_port_join_vvlan(vvlan_port_t *port, uint32_t add);

/* Sets ACLs and trap as the mode requires, or removes them. */
int udp_vvlan_port_aply_acl(vvlan_port_t *port, uint32_t auto_mod);
int udp_vvlan_port_unaply_acl(vvlan_port_t *port);

/* The voice VLAN was switched off; an OUI was added; the security mode changed. */
int udp_vvlan_port_remove_vvlan(vvlan_port_t *port, void *arg);
int udp_vvlan_port_cfg_sec(vvlan_port_t *port, void *arg);
int udp_vvlan_port_set_sec(vvlan_port_t *port, void *arg);
}

#endif
