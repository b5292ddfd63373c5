/* Defaults are those of a switch on which nobody has configured a voice VLAN.
 */
#include "udp_vvlan_glb_cfg.h"

vvlan_glb_cfg_t g_udp_vvlan_glb_cfg;

void udp_vvlan_recover(void)
{
    g_udp_vvlan_glb_cfg.vid = 0;
    g_udp_vvlan_glb_cfg.enable = 0;
    g_udp_vvlan_glb_cfg.age_time = VVLAN_AGE_TIME_DEFAULT;
    g_udp_vvlan_glb_cfg.secu_mode = 0;
    g_udp_vvlan_glb_cfg.cos = VVLAN_COS_DEFAULT;
    g_udp_vvlan_glb_cfg.dscp = VVLAN_DSCP_DEFAULT;
}
