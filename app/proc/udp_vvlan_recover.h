/* Join-state recovery: the ports that are in the voice VLAN by themselves, in
 * memory and, as u_bridge.vvlan_join, in the object store.
 */
#ifndef UDP_VVLAN_RECOVER_H
#define UDP_VVLAN_RECOVER_H

#include "tq_mom.h"
#include "udp_vvlan_hash.h"

#include <stdint.h>

/* A joined port. Its presence is the information. */
typedef struct vvlan_recover {
    uint32_t ifx; /* key */
} vvlan_recover_t;

struct vvlan_recover_traits {
    using record = vvlan_recover_t;
    static uint32_t hash(const record *key) { return udp_vvlan_hash_lookup2(key->ifx, 0, sizeof key->ifx); }
    static bool equal(const record *a, const record *b) { return a->ifx == b->ifx; }
    static void update(record *, const record *) {}
};

extern "C" {

VVLAN_HASH_DECLARE(recover, vvlan_recover_t);

/* Creates the table on the first call; later calls keep it with its entries. */
int udp_vvlan_recover_table_init(void);

vvlan_recover_t *udp_vvlan_get_recover_entry(uint32_t ifx);

/* The entry of the port, made where there is none; null when memory runs out. */
vvlan_recover_t *udp_vvlan_add_recover_entry(uint32_t ifx);
void udp_vvlan_del_recover_entry(uint32_t ifx);
int udp_vvlan_recover_each_item_op(int (*callback)(vvlan_recover_t *, void *), void *arg);
void udp_vvlan_recover_db_clear(void);

/* Writes (join non-zero) or deletes the port's join object. 0 or the store's code. */
int udp_vvlan_set_vvlan_join(uint32_t join, uint32_t ifx);

/* Reads all join objects into the table before it returns. */
int udp_vvlan_recover_ds_init(void *ctx);

/* The callback of that read: -4 for a malformed record, -6 without memory, -20
 * for another operation. */
int udp_vvlan_recover_vvlan_cfg(void *ctx, tq_mom_record_t *record, void *user);
}

#endif
