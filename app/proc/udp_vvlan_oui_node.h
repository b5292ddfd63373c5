/* An OUI as the OUI table keeps it, for those below the table that read one:
 * the forwarding plane's ACEs and the error reports.
 */
#ifndef UDP_VVLAN_OUI_NODE_H
#define UDP_VVLAN_OUI_NODE_H

#include "udp_vvlan_base.h"
#include "udp_vvlan_list.h"

#include <stdint.h>

/* One configured OUI, identified by mac and mask together, byte for byte. */
typedef struct vvlan_oui {
    vvlan_list_t link;            /* in its bucket of g_udp_vvlan_oui */
    uint8_t mac[VVLAN_MAC_SIZE];  /* as configured, not masked */
    uint8_t mask[VVLAN_MAC_SIZE]; /* as configured */
    uint32_t ace_id;              /* of its two ACEs and of its record in the store; 1 to 127 */
} vvlan_oui_t;

#endif
