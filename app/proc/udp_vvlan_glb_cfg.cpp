/* Switching on creates the ACLs, fills them and applies every port's
 * configuration. Switching off takes every port out while the ACLs still exist,
 * since that is what the ports look at, and removes ACEs and ACLs afterwards.
 * Switching to another id is switching on again: ACLs and ACEs are replaced in
 * place, so that calls on other ports are not disturbed.
 */
#include "udp_vvlan_glb_cfg.h"

#include "udp_vvlan.h"
#include "udp_vvlan_debug.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

vvlan_glb_cfg_t g_udp_vvlan_glb_cfg;

int udp_vvlan_glb_cfg_init(void)
{
    udp_vvlan_recover();
    udp_vvlan_oui_init();
    int rv = udp_vvlan_port_init();
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<init> udp_vvlan_port_init failed, rv = %d.", rv);
        return rv;
    }
    rv = udp_vvlan_mac_init();
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<init> udp_vvlan_mac_init failed, rv = %d.", rv);
        return rv;
    }
    rv = udp_vvlan_recover_table_init();
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<init> udp_vvlan_recover_init failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("udp_vvlan_indep_init succeed!");
    return VVLAN_OK;
}

void udp_vvlan_recover(void)
{
    g_udp_vvlan_glb_cfg.vid = 0;
    g_udp_vvlan_glb_cfg.enable = 0;
    g_udp_vvlan_glb_cfg.age_time = VVLAN_AGE_TIME_DEFAULT;
    g_udp_vvlan_glb_cfg.secu_mode = 0;
    g_udp_vvlan_glb_cfg.cos = VVLAN_COS_DEFAULT;
    g_udp_vvlan_glb_cfg.dscp = VVLAN_DSCP_DEFAULT;
}

int udp_vvlan_add_vid(uint32_t vid)
{
    if (vid == 0) {
        g_udp_vvlan_glb_cfg.enable = 0;
        return VVLAN_OK;
    }
    g_udp_vvlan_glb_cfg.vid = vid;
    g_udp_vvlan_glb_cfg.enable = 1;
    udp_vvlan_set_acl(1);
    udp_vvlan_set_ace(1);
    return udp_vvlan_port_hash_traverse(udp_vvlan_port_cfg, nullptr);
}

void udp_vvlan_del_vid(uint32_t vid)
{
    if (vid != g_udp_vvlan_glb_cfg.vid) {
        VVLAN_LOG_INFO("wrong vid(%d)!", vid);
        return;
    }
    g_udp_vvlan_glb_cfg.vid = 0;
    g_udp_vvlan_glb_cfg.enable = 0;
    udp_vvlan_port_hash_traverse(udp_vvlan_port_remove_vvlan, nullptr);
    udp_vvlan_set_ace(0);
    udp_vvlan_set_acl(0);
}
