/* The one global configuration record, and switching the voice VLAN on and off.
 */
#ifndef UDP_VVLAN_GLB_CFG_H
#define UDP_VVLAN_GLB_CFG_H

#include "udp_vvlan_fp.h"

#include <stdint.h>

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

/* Defaults and empty tables, at first start. 0 or the first failing step's code. */
int udp_vvlan_glb_cfg_init(void);

/* Sets the settings, not the ACL records, to their defaults. */
void udp_vvlan_recover(void);

/* Switches the voice VLAN on with this id: ACLs, ACEs, then every port. With id
 * 0 only clears enable. 0 or the result of the port walk. */
int udp_vvlan_add_vid(uint32_t vid);

/* Switches it off if this is its id. */
void udp_vvlan_del_vid(uint32_t vid);
}

#endif
