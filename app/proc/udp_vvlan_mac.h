/* Learned voice-device MACs, and the bridge's notifications that add and remove
 * them.
 */
#ifndef UDP_VVLAN_MAC_H
#define UDP_VVLAN_MAC_H

#include "tq_mom.h"
#include "u_bridge.pb-c.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_hash.h"
#include "udp_vvlan_list.h"

#include <stdint.h>
#include <string.h>

/* One voice device. It is in the mac_list of the port whose ifx it holds. */
typedef struct vvlan_mac {
    uint8_t mac[VVLAN_MAC_SIZE]; /* key; transmission order */
    vvlan_list_t link;           /* in vvlan_port_t::mac_list */
    uint32_t ifx;                /* the port where it was last seen */
} vvlan_mac_t;

struct vvlan_mac_traits {
    using record = vvlan_mac_t;
    static uint32_t hash(const record *key)
    {
        uint32_t low;
        uint16_t high;
        memcpy(&low, key->mac, sizeof low);
        memcpy(&high, key->mac + sizeof low, sizeof high);
        return udp_vvlan_hash_lookup2(low, high, VVLAN_MAC_SIZE);
    }
    static bool equal(const record *a, const record *b) { return memcmp(a->mac, b->mac, VVLAN_MAC_SIZE) == 0; }
    static void update(record *present, const record *tmpl) { present->ifx = tmpl->ifx; }
};

extern "C" {

VVLAN_HASH_DECLARE(mac, vvlan_mac_t);

int udp_vvlan_mac_init(void);

/* mac: six bytes. */
vvlan_mac_t *udp_vvlan_mac_get(const uint8_t *mac);

/* add 1: the record of the template's MAC, made where there is none; null
 * without memory. add 0: removes and frees it, null. Lists are the caller's. */
vvlan_mac_t *udp_vvlan_mac_op(const vvlan_mac_t *tmpl, uint32_t add);

/* Whether a message's address is there and has six bytes. */
bool udp_vvlan_mac_data_valid(const PLibpub__Mac *mac);

/* ---- Notifications ---- */

/* Subscribes (sub 1) to the voice VLAN's notifications, ending those of another
 * VLAN first, or unsubscribes. 0 or the store's code. */
int udp_vvlan_mac_subscribe(uint32_t sub);
int udp_vvlan_mac_subscribe_callback(void *ctx, tq_mom_record_t *record, void *user);

/* Scans the present notifications; with ifx other than 0, only those of that port are handled. */
int udp_vvlan_mac_scan(uint32_t ifx);

/* Decodes one record of scan or subscription; ifx: the scan's port, widened to
 * a pointer. -4 for a malformed record, -20 for another operation. */
int udp_vvlan_event_set_mac_noti(void *ctx, tq_mom_record_t *record, void *ifx);

/* Checks a notification's MAC: 0, or -4 with its log lines. */
int udp_vvlan_mac_check_noti(const UBridge__MacVidRegNoti *noti);
void udp_vvlan_mac_print_noti(int32_t operate, const UBridge__MacVidRegNoti *noti);

/* Applies one notification: add 1 set, 0 delete. -4 for one without its MAC. */
int udp_vvlan_handler_set_mac_noti(uint32_t add, const UBridge__MacVidRegNoti *noti);

/* Walk callback when an OUI (vvlan_oui_t, the argument) is deleted: drops the
 * record if the OUI matches its MAC. */
int udp_vvlan_del_oui_mac(vvlan_mac_t *record, void *oui);
}

#endif
