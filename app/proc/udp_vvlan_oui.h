/* OUI table: the MAC prefixes that make a source MAC a voice device.
 */
#ifndef UDP_VVLAN_OUI_H
#define UDP_VVLAN_OUI_H

#include "udp_vvlan_oui_node.h"

#include <stdint.h>

constexpr uint32_t VVLAN_OUI_BUCKET_COUNT = 16;

extern "C" {

/* Bucket: the sum of the masked bytes, modulo the bucket count. */
extern vvlan_list_t g_udp_vvlan_oui[VVLAN_OUI_BUCKET_COUNT];

void udp_vvlan_oui_init(void);

/* Exact look-up. mac, mask: six bytes. */
vvlan_oui_t *udp_vvlan_oui_find_node(const uint8_t *mac, const uint8_t *mask);

/* The OUI of a learned MAC, or null. A 24-bit prefix wins, then the full
 * address, then the longest remaining prefix; OUIs whose mask is no prefix, or
 * whose address has bits outside its mask, are never returned. */
vvlan_oui_t *udp_vvlan_oui_find_mac(const uint8_t *mac);

/* Adds an OUI with its ACEs and its record, or returns the one that is there.
 * Null when memory or ACE ids are exhausted; nothing is kept then. */
vvlan_oui_t *udp_vvlan_oui_add_node(const uint8_t *mac, const uint8_t *mask);

/* Removes an OUI with its ACEs, its record and the learned MACs that it
 * matches, and frees it. */
void udp_vvlan_oui_del_node(vvlan_oui_t *node);

/* Writes (add non-zero) or deletes the node's u_bridge.vvlan_oui_cfg. */
void udp_vvlan_oui_set_db(const vvlan_oui_t *node, uint32_t add);

/* Programs or removes the ACEs of every OUI; 0 or the first failure. */
int udp_vvlan_oui_set_ace(uint32_t add);

/* Programs the CoS ACEs again, after the voice priority changed. */
void udp_vvlan_oui_set_cos(void);

/* Frees every node, at unload. */
void udp_vvlan_oui_release(void);
}

#endif
