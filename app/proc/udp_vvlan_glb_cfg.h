/* The one global configuration record, with the ACLs that carry it out.
 */
#ifndef UDP_VVLAN_GLB_CFG_H
#define UDP_VVLAN_GLB_CFG_H

#include "fp_udp.h"

#include <stdint.h>

/* One of the module's ACLs. Never moves: the plane gets the descriptor's address. */
typedef struct vvlan_acl {
    uint8_t created;       /* 1 from the request to set it until the request to delete it */
    vvlan_acl_desc_t desc; /* as last handed to the plane */
} vvlan_acl_t;

/* Every area reads it; only the configuration handlers write its settings. */
typedef struct vvlan_glb_cfg {
    uint32_t vid;          /* voice VLAN id; 0: none */
    uint8_t enable;        /* voice VLAN switched on */
    uint16_t age_time;     /* minutes that a joined port keeps without a voice device */
    uint8_t secu_mode;     /* security mode: only voice devices may use the voice VLAN */
    uint8_t cos;           /* 802.1p priority of voice traffic */
    uint8_t dscp;          /* DSCP of voice traffic */
    vvlan_acl_t cos_acl;   /* voice devices get cos and dscp */
    vvlan_acl_t mvlan_acl; /* voice devices get the voice VLAN tag */
    vvlan_acl_t sec_acl;   /* the voice VLAN as a whole */
} vvlan_glb_cfg_t;

constexpr uint16_t VVLAN_AGE_TIME_DEFAULT = 1440; /* one day */
constexpr uint8_t VVLAN_COS_DEFAULT = 6;          /* above best effort and video, below network control */
constexpr uint8_t VVLAN_DSCP_DEFAULT = 46;        /* expedited forwarding, RFC 3246 */

extern "C" {

extern vvlan_glb_cfg_t g_udp_vvlan_glb_cfg;

/* Sets the settings, not the ACL records, to their defaults. */
void udp_vvlan_recover(void);
}

#endif
