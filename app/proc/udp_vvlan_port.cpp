/* A manual port has the voice ACLs whenever it is enabled and the voice VLAN is
 * on. An automatic port waits with its voice traffic trapped to the CPU, joins
 * when the packet side reports a voice frame, and leaves when it has had no
 * voice device for the aging time; joining and leaving are written to the
 * object store, so that they outlive this process.
 *
 * The bits of a port say what was requested. They are set before the writes and
 * ACL calls, and a failure does not reset them: the next event of the port
 * repeats the request.
 */
#include "udp_vvlan_port.h"

#include "p_bridge.pb-c.h"
#include "tq_mom.h"
#include "u_bridge.pb-c.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_err.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_recover.h"

VVLAN_HASH_DEFINE(port, vvlan_port_traits);

/* ---- Records ---- */

int udp_vvlan_port_init(void)
{
    return udp_vvlan_port_hash_init();
}

vvlan_port_t *udp_vvlan_port_get(uint32_t ifx)
{
    vvlan_port_t key = {};
    key.ifx = ifx;
    return udp_vvlan_port_hash_find(&key);
}

vvlan_port_t *udp_vvlan_port_op(const vvlan_port_t *tmpl, uint32_t add)
{
    vvlan_port_t *port = udp_vvlan_port_hash_find(tmpl);
    if (add == 0) {
        if (port != nullptr) {
            udp_vvlan_port_cache_destroy(port);
        }
        return nullptr;
    }
    if (port == nullptr && udp_vvlan_port_cache_create(&port, tmpl) != nullptr) {
        udp_vvlan_list_init(&port->mac_list);
    }
    return port;
}

/* Answers a walk that hands over no record. */
static int null_port(void)
{
    VVLAN_LOG_ERROR("pointer NULL!");
    return VVLAN_WALK_NULL;
}

int udp_vvlan_port_clear_mac(vvlan_port_t *port, [[maybe_unused]] uint32_t op)
{
    if (port == nullptr) {
        return null_port();
    }
    while (!udp_vvlan_list_empty(&port->mac_list)) {
        vvlan_list_t *link = port->mac_list.next;
        udp_vvlan_list_unlink(link);
        udp_vvlan_mac_op(VVLAN_LIST_ENTRY(link, vvlan_mac_t, link), 0);
    }
    return VVLAN_OK;
}

void udp_vvlan_port_mark_macless(vvlan_port_t *port)
{
    port->no_flw = 0;
    port->deny_en = 0;
    port->auto_join = 1;
    port->mac_aged = 1;
}

int udp_vvlan_port_mac(vvlan_port_t *port, [[maybe_unused]] void *arg)
{
    if (port == nullptr) {
        return null_port();
    }
    if (udp_vvlan_list_empty(&port->mac_list)) {
        udp_vvlan_port_mark_macless(port);
        VVLAN_LOG_DEBUG(VVLAN_PORT_BITS_FORMAT, VVLAN_PORT_BITS_ARGS(port));
    }
    return VVLAN_OK;
}

/* ---- Applying the configuration ---- */

static int apply_enabled(vvlan_port_t *port)
{
    if (g_udp_vvlan_glb_cfg.enable == 0) {
        return VVLAN_OK;
    }
    if (udp_vvlan_port_aply_acl(port, port->auto_mod) != 0) {
        VVLAN_LOG_WARN("set port_cfg(ifx=%d) fail!", port->ifx);
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_PORT_ENABLE, &port->ifx);
    }
    if (port->auto_mod != 0) {
        udp_vvlan_mac_scan(port->ifx);
    } else {
        udp_vvlan_port_clear_mac(port, 0);
    }
    return VVLAN_OK;
}

static int apply_disabled(vvlan_port_t *port)
{
    int rv = udp_vvlan_port_unaply_acl(port);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:set vvlan en del fail!");
        return rv;
    }
    if (port->auto_mod == 0) {
        return VVLAN_OK;
    }
    rv = udp_vvlan_port_join_vvlan(port, 0);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:remove port(ifx:%d) from vvlan fail!", port->ifx);
        return rv;
    }
    udp_vvlan_port_clear_mac(port, 0);
    return VVLAN_OK;
}

int udp_vvlan_port_cfg(vvlan_port_t *port, [[maybe_unused]] void *arg)
{
    if (port == nullptr) {
        return null_port();
    }
    VVLAN_LOG_INFO(" mod=%d, deny_en=%d, mac_aged=%d, auto_join=%d ", port->auto_mod, port->deny_en, port->mac_aged,
                   port->auto_join);
    return port->vvlan_en != 0 ? apply_enabled(port) : apply_disabled(port);
}

/* ---- Objects in the store ---- */

int udp_vvlan_port_set_trap(vvlan_port_t *port, uint32_t add)
{
    UBridge__VvlanIndex key = U_BRIDGE__VVLAN_INDEX__INIT;
    key.ifx = port->ifx;
    UBridge__VvlanPortCfg object = U_BRIDGE__VVLAN_PORT_CFG__INIT;
    object.index = &key;
    port->deny_en = add != 0;
    const int rv = add != 0 ? tq_mom_set(g_udp_vvlan_global, TQ_MOM_UDP_DB, &object.base, nullptr, nullptr)
                            : tq_mom_del(g_udp_vvlan_global, TQ_MOM_UDP_DB, &object.base, nullptr, nullptr);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:port(ifx: %d) set(add: %d) vvlan(%d) fail.", port->ifx, add, g_udp_vvlan_glb_cfg.vid);
        return VVLAN_E_STORE;
    }
    VVLAN_LOG_INFO("port(ifx: %d) set(add: %d) vvlan(%d) successful.", port->ifx, add, g_udp_vvlan_glb_cfg.vid);
    return VVLAN_OK;
}

/* The control side's record of an automatic join. */
static int write_port_auto(const vvlan_port_t *port, uint32_t add)
{
    PBridge__VvlanIndex key = P_BRIDGE__VVLAN_INDEX__INIT;
    key.ifx = port->ifx;
    PBridge__VvlanPortAuto object = P_BRIDGE__VVLAN_PORT_AUTO__INIT;
    object.index = &key;
    object.enable = add != 0;
    return add != 0 ? tq_mom_set(g_udp_vvlan_global, VVLAN_DB_CONFIG, &object.base, nullptr, nullptr)
                    : tq_mom_del(g_udp_vvlan_global, VVLAN_DB_CONFIG, &object.base, nullptr, nullptr);
}

/* ---- Join and leave ---- */

int udp_vvlan_port_join_vvlan(vvlan_port_t *port, uint32_t add)
{
    VVLAN_LOG_INFO("port=%d add=%d", port->ifx, add);
    const bool join = add != 0;
    port->deny_en = !join;
    port->auto_join = join;
    udp_vvlan_set_vvlan_join(join, port->ifx);
    if (join) {
        udp_vvlan_add_recover_entry(port->ifx);
    } else {
        udp_vvlan_del_recover_entry(port->ifx);
    }
    int rv = write_port_auto(port, join);
    if (rv != 0) {
        VVLAN_LOG_WARN("rv = %d", rv);
        return rv;
    }
    if (port->vvlan_en != 0) {
        rv = udp_vvlan_port_set_trap(port, !join);
        if (rv != 0) {
            VVLAN_LOG_WARN("rv = %d", rv);
            return rv;
        }
    }
    rv = udp_vvlan_apply_cos_acl(&g_udp_vvlan_glb_cfg.cos_acl, port->phyid, join);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:apply cos fail");
        return rv;
    }
    rv = udp_vvlan_apply_mvlan_acl(&g_udp_vvlan_glb_cfg.mvlan_acl, port->phyid, join);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:apply mvlan fail");
    }
    return rv;
}

/* ---- ACLs of a port ---- */

static bool voice_acls_exist(void)
{
    return g_udp_vvlan_glb_cfg.cos_acl.created != 0 && g_udp_vvlan_glb_cfg.mvlan_acl.created != 0;
}

/* Binds or unbinds the CoS and the MAC-VLAN ACL; the OR of both results. */
static int apply_voice_acls(const vvlan_port_t *port, uint32_t apply)
{
    int rv = udp_vvlan_apply_cos_acl(&g_udp_vvlan_glb_cfg.cos_acl, port->phyid, apply);
    rv |= udp_vvlan_apply_mvlan_acl(&g_udp_vvlan_glb_cfg.mvlan_acl, port->phyid, apply);
    return rv;
}

static int put_in_voice_vlan(vvlan_port_t *port)
{
    int rv = udp_vvlan_port_set_trap(port, 0);
    rv |= apply_voice_acls(port, 1);
    return rv;
}

static int wait_for_voice(vvlan_port_t *port)
{
    int rv = apply_voice_acls(port, 0);
    rv |= udp_vvlan_port_set_trap(port, 1);
    return rv;
}

int udp_vvlan_port_aply_acl(vvlan_port_t *port, uint32_t auto_mod)
{
    VVLAN_LOG_INFO("auto_mod=%d ", auto_mod);
    if (voice_acls_exist()) {
        int rv;
        /* A port that was joined before a restart joins again at once, but only
         * while the start-up scan runs: later its entry may be out of date. */
        const bool rejoin = port_cfg_scan_over == 0 && udp_vvlan_get_recover_entry(port->ifx) != nullptr;
        if (auto_mod == 0 || rejoin) {
            rv = put_in_voice_vlan(port);
            VVLAN_LOG_INFO("cos/mvlan apply acl ,rv:%d", rv);
        } else {
            rv = wait_for_voice(port);
            VVLAN_LOG_INFO("trap_to_cpu apply acl ,rv:%d", rv);
        }
        if (rv != 0) {
            VVLAN_LOG_ERROR("Assert:set trap_cpu acl fail");
            return rv;
        }
    }
    if (g_udp_vvlan_glb_cfg.sec_acl.created != 0) {
        VVLAN_LOG_INFO("sec_fp apply acl ,rv:%d", 0);
        const int rv = udp_vvlan_apply_sec_acl(&g_udp_vvlan_glb_cfg.sec_acl, port->phyid, 1);
        if (rv != 0) {
            VVLAN_LOG_ERROR("Assert:udp_vvlan_apply_sec_acl fail");
            return rv;
        }
    }
    VVLAN_LOG_INFO("apply acl ,rv:%d", 0);
    return VVLAN_OK;
}

int udp_vvlan_port_unaply_acl(vvlan_port_t *port)
{
    int rv = VVLAN_OK;
    if (voice_acls_exist()) {
        if (port->auto_mod != 0 && port->deny_en != 0) {
            rv |= udp_vvlan_port_set_trap(port, 0);
        }
        rv |= apply_voice_acls(port, 0);
    }
    if (g_udp_vvlan_glb_cfg.sec_acl.created != 0) {
        const int sec_rv = udp_vvlan_apply_sec_acl(&g_udp_vvlan_glb_cfg.sec_acl, port->phyid, 0);
        if (sec_rv != 0) {
            VVLAN_LOG_ERROR("Assert:unaply_acl fail");
        }
        rv |= sec_rv;
    }
    return rv;
}

/* ---- Walks over all ports ---- */

int udp_vvlan_port_remove_vvlan(vvlan_port_t *port, [[maybe_unused]] void *arg)
{
    if (port == nullptr) {
        return null_port();
    }
    udp_vvlan_port_unaply_acl(port);
    udp_vvlan_port_clear_mac(port, 0);
    if (port->auto_mod != 0 && port->auto_join != 0) {
        port->auto_join = 0;
        const int rv = write_port_auto(port, 0);
        udp_vvlan_set_vvlan_join(0, port->ifx);
        udp_vvlan_del_recover_entry(port->ifx);
        return rv;
    }
    if (port->auto_mod != 0 && port->deny_en != 0) {
        udp_vvlan_port_set_trap(port, 0);
    }
    return VVLAN_OK;
}

int udp_vvlan_port_cfg_sec(vvlan_port_t *port, [[maybe_unused]] void *arg)
{
    if (port == nullptr) {
        return null_port();
    }
    if (port->vvlan_en == 0) {
        return VVLAN_OK;
    }
    VVLAN_LOG_INFO("vvlan_en=%d, mod=%d ", port->vvlan_en, port->auto_mod);
    if (g_udp_vvlan_glb_cfg.enable == 0 || !voice_acls_exist()) {
        return VVLAN_OK;
    }
    /* A joined port is trapped too: a device of the new OUI may be the one that
     * keeps it joined. */
    const int rv = port->auto_mod != 0 ? udp_vvlan_port_set_trap(port, 1) : put_in_voice_vlan(port);
    VVLAN_LOG_INFO("apply acl ,rv:%d", rv);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:set trap_cpu acl fail");
    }
    return rv;
}

int udp_vvlan_port_set_sec(vvlan_port_t *port, [[maybe_unused]] void *arg)
{
    if (port == nullptr) {
        return null_port();
    }
    if (port->vvlan_en == 0) {
        return VVLAN_OK;
    }
    const int rv = udp_vvlan_apply_sec_acl(&g_udp_vvlan_glb_cfg.sec_acl, port->phyid, 1);
    VVLAN_LOG_INFO("rv = %d", rv);
    if (rv != 0) {
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_SECURITY_MOD, nullptr);
    }
    return VVLAN_OK;
}
