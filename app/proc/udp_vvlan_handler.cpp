/* What a change of configuration does, object by object. Handlers run to
 * completion, do not retry, and do not roll back: the next event or the next
 * re-initialisation corrects what a failed step leaves behind.
 *
 * Switching on creates the ACLs, fills them and applies every port's
 * configuration. Switching off takes every port out while the ACLs still exist,
 * since the ports look at them, and removes ACEs and ACLs afterwards. Switching
 * to another id is switching on again: ACLs and ACEs are replaced in place, so
 * that calls on other ports are not disturbed.
 */
#include "udp_vvlan_handler.h"

#include "libddm.h"
#include "p_bridge.pb-c.h"
#include "s_cluster.pb-c.h"
#include "tq_mom.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_err.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

/* protobuf-c's strings are not const; the store only reads them. */
static char vvlan_pkt_app_name[] = "pkt_vvlan";
static char vvlan_pkt_library[] = "libpkt.vvlan.sw.so";

int udp_vvlan_glb_cfg_init(void)
{
    static const struct {
        const char *name; /* in log lines */
        int (*init)(void);
    } steps[] = {
        {"udp_vvlan_port_init", udp_vvlan_port_init},
        {"udp_vvlan_mac_init", udp_vvlan_mac_init},
        {"udp_vvlan_recover_init", udp_vvlan_recover_table_init},
    };
    udp_vvlan_recover();
    udp_vvlan_oui_init();
    for (const auto &step : steps) {
        const int rv = step.init();
        if (rv != 0) {
            VVLAN_LOG_ERROR("Assert:<init> %s failed, rv = %d.", step.name, rv);
            return rv;
        }
    }
    VVLAN_LOG_INFO("udp_vvlan_indep_init succeed!");
    return VVLAN_OK;
}

int udp_vvlan_handler_init(void *ctx, const char *name)
{
    const int rv = libddm_init(ctx, name);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<init> init ddm failed, rv = %d.", rv);
        return rv;
    }
    SCluster__AppName key = S_CLUSTER__APP_NAME__INIT;
    key.name = vvlan_pkt_app_name;
    SCluster__RegPktInfo object = S_CLUSTER__REG_PKT_INFO__INIT;
    object.index = &key;
    object.dlib_name = vvlan_pkt_library;
    tq_mom_set(ctx, VVLAN_DB_STATUS, &object.base, nullptr, nullptr);
    return VVLAN_OK;
}

/* ---- Switching ---- */

void udp_vvlan_set_ace(uint32_t add)
{
    int rv = udp_vvlan_set_sec_ace(&g_udp_vvlan_glb_cfg.sec_acl, add);
    rv |= udp_vvlan_oui_set_ace(add);
    if (rv != 0) {
        VVLAN_LOG_WARN("add sec_ace fail !");
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_ENABLE, nullptr);
    }
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

/* ---- Global configuration, a handler per field ---- */

static int set_glb_switch(const PBridge__VvlanGlbCfg *msg)
{
    const PBridge__VvlanEn *glb_switch = msg->glb_switch;
    if (glb_switch == nullptr) {
        VVLAN_LOG_ERROR("Assert:glb_switch is NULL!");
        return VVLAN_E_INVALID;
    }
    if (glb_switch->enable != 0) {
        udp_vvlan_add_vid(glb_switch->vlan);
    } else {
        udp_vvlan_del_vid(glb_switch->vlan);
    }
    const int rv = udp_vvlan_mac_subscribe(glb_switch->enable != 0);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert: sub(%d) mac addr for voice vlan fail! rv=%d ", glb_switch->enable, rv);
        return VVLAN_E_STORE;
    }
    return VVLAN_OK;
}

static int set_secu_mode(const PBridge__VvlanGlbCfg *msg)
{
    g_udp_vvlan_glb_cfg.secu_mode = msg->secu_mode != 0;
    VVLAN_LOG_INFO("sec=%d \n", g_udp_vvlan_glb_cfg.secu_mode);
    udp_vvlan_set_sec_ace(&g_udp_vvlan_glb_cfg.sec_acl, 1);
    udp_vvlan_port_hash_traverse(udp_vvlan_port_set_sec, nullptr);
    return VVLAN_OK;
}

/* The ports' counters keep their values; the next aging scan compares them with the new time. */
static int set_age_time(const PBridge__VvlanGlbCfg *msg)
{
    g_udp_vvlan_glb_cfg.age_time = static_cast<uint16_t>(msg->age_time);
    return VVLAN_OK;
}

static int set_qos(const PBridge__VvlanGlbCfg *msg)
{
    if (msg->qos == nullptr) {
        VVLAN_LOG_ERROR("Assert:fp_qos is NULL!");
        return VVLAN_E_INVALID;
    }
    g_udp_vvlan_glb_cfg.cos = static_cast<uint8_t>(msg->qos->cos);
    g_udp_vvlan_glb_cfg.dscp = static_cast<uint8_t>(msg->qos->dscp);
    udp_vvlan_oui_set_cos();
    udp_vvlan_set_sec_ace(&g_udp_vvlan_glb_cfg.sec_acl, 1);
    return VVLAN_OK;
}

int udp_vvlan_handler_set_glb_cfg([[maybe_unused]] uint32_t op, const PBridge__VvlanGlbCfg *msg, uint32_t field_tag)
{
    static const struct {
        uint32_t field_tag;
        int (*set)(const PBridge__VvlanGlbCfg *msg);
    } fields[] = {
        {VVLAN_GLB_FIELD_SWITCH, set_glb_switch},
        {VVLAN_GLB_FIELD_SECU_MODE, set_secu_mode},
        {VVLAN_GLB_FIELD_AGE_TIME, set_age_time},
        {VVLAN_GLB_FIELD_QOS, set_qos},
    };
    VVLAN_LOG_INFO("field_tag = %d.", field_tag);
    if (msg == nullptr) {
        VVLAN_LOG_ERROR("Assert:msg glb_cfg param failed.");
        return VVLAN_E_INVALID;
    }
    for (const auto &field : fields) {
        if (field.field_tag == field_tag) {
            return field.set(msg);
        }
    }
    VVLAN_LOG_ERROR(" field_tag(%u)' operation is not found.", field_tag);
    return VVLAN_E_UNHANDLED;
}

/* ---- OUIs ---- */

int udp_vvlan_handler_check_oui_cfg(const PBridge__VvlanOuiCfg *msg)
{
    if (msg == nullptr || msg->index == nullptr || !udp_vvlan_mac_data_valid(msg->index->mac) ||
        !udp_vvlan_mac_data_valid(msg->index->mask)) {
        VVLAN_LOG_ERROR("Assert:msg oui_cfg param failed.");
        return VVLAN_E_INVALID;
    }
    return VVLAN_OK;
}

int udp_vvlan_handler_set_oui_cfg(uint32_t add, const PBridge__VvlanOuiCfg *msg)
{
    if (udp_vvlan_handler_check_oui_cfg(msg) != 0) {
        return VVLAN_E_INVALID;
    }
    const uint8_t *mac = msg->index->mac->data.data;
    const uint8_t *mask = msg->index->mask->data.data;
    VVLAN_LOG_INFO("set oui_cfg, add=%d !", add);
    if (add != 0) {
        VVLAN_LOG_INFO("set oui_cfg, mac :%02x%02x.%02x%02x.%02x%02x", VVLAN_MAC_ARGS(mac));
        VVLAN_LOG_INFO("set oui_cfg, mask:%02x%02x.%02x%02x.%02x%02x", VVLAN_MAC_ARGS(mask));
        if (udp_vvlan_oui_add_node(mac, mask) == nullptr) {
            VVLAN_LOG_ERROR("Assert: vvlan_oui, add node fail !");
            return VVLAN_E_STORE;
        }
        return VVLAN_OK;
    }
    vvlan_oui_t *node = udp_vvlan_oui_find_node(mac, mask);
    if (node == nullptr) {
        VVLAN_LOG_ERROR("Assert: vvlan_oui, not find!");
        return VVLAN_E_NOT_FOUND;
    }
    udp_vvlan_oui_del_node(node);
    return VVLAN_OK;
}

/* ---- Ports ---- */

int udp_vvlan_handler_check_port_cfg(const PBridge__VvlanPortCfg *msg)
{
    if (msg == nullptr || msg->index == nullptr) {
        VVLAN_LOG_ERROR("Assert:msg port_cfg param failed.");
        return VVLAN_E_INVALID;
    }
    return VVLAN_OK;
}

/* A new record starts as joined and without voice devices; the apply step and
 * the first notifications change that. The physical id is looked up once: a port
 * without one keeps its record, but is not configured. */
static int create_port(const PBridge__VvlanPortCfg *msg, vvlan_port_t **out)
{
    vvlan_port_t tmpl = {};
    tmpl.ifx = msg->index->ifx;
    vvlan_port_t *port = udp_vvlan_port_op(&tmpl, 1);
    if (port == nullptr) {
        VVLAN_LOG_ERROR("Assert:node add fail, ifx=%d", msg->index->ifx);
        return VVLAN_E_NO_OBJECT;
    }
    port->vvlan_en = msg->enable & 1;
    port->auto_mod = msg->mode & 1;
    port->auto_join = 1;
    port->deny_en = 0;
    port->mac_aged = 1;
    const int rv = libddm_get_phyid_by_ifx(port->ifx, &port->phyid);
    if (rv != 0) {
        VVLAN_LOG_WARN("rv = %d", rv);
        return rv;
    }
    VVLAN_LOG_INFO("creat new node(ifx = %d phyid = 0x%x.) successfully !", port->ifx, port->phyid);
    *out = port;
    return VVLAN_OK;
}

static int set_port(const PBridge__VvlanPortCfg *msg, vvlan_port_t *port)
{
    if (port != nullptr) {
        port->vvlan_en = msg->enable & 1;
        port->auto_mod = msg->mode & 1;
    } else {
        const int rv = create_port(msg, &port);
        if (rv != 0) {
            return rv;
        }
    }
    if (udp_vvlan_port_cfg(port, nullptr) != 0) {
        VVLAN_LOG_ERROR("Assert:config port(ifx:%d) fail!", port->ifx);
    }
    return VVLAN_OK;
}

static int delete_port(uint32_t ifx, vvlan_port_t *port)
{
    if (port == nullptr) {
        VVLAN_LOG_ERROR("Assert:not find port by ifx(%d)!", ifx);
        return VVLAN_E_NOT_FOUND;
    }
    const int rv = udp_vvlan_port_unaply_acl(port);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:set vvlan en del fail!");
        return rv;
    }
    udp_vvlan_port_clear_mac(port, 0);
    udp_vvlan_port_op(port, 0);
    return VVLAN_OK;
}

int udp_vvlan_handler_set_port_cfg(uint32_t add, const PBridge__VvlanPortCfg *msg)
{
    VVLAN_LOG_INFO("set port_cfg, add=%d !", add);
    if (udp_vvlan_handler_check_port_cfg(msg) != 0) {
        return VVLAN_E_INVALID;
    }
    vvlan_port_t *port = udp_vvlan_port_get(msg->index->ifx);
    return add != 0 ? set_port(msg, port) : delete_port(msg->index->ifx, port);
}

int udp_vvlan_handler_set_port_noti([[maybe_unused]] uint32_t op, const SBridge__VvlanPortNoty *msg)
{
    if (msg == nullptr || msg->index == nullptr) {
        VVLAN_LOG_ERROR("Assert:msg vvlan_port_noty param failed.");
        return VVLAN_E_INVALID;
    }
    uint32_t ifx = 0;
    int rv = libddm_get_ifx_by_phyid(msg->index->phyid, &ifx);
    if (rv != 0) {
        VVLAN_LOG_WARN("rv = %d", rv);
        return rv;
    }
    vvlan_port_t *port = udp_vvlan_port_get(ifx);
    if (port == nullptr || port->vvlan_en == 0 || port->auto_mod == 0) {
        return VVLAN_OK;
    }
    /* A joined port joins again too: that writes its join state again, and
     * removes the trap that an added OUI has set. */
    rv = udp_vvlan_port_join_vvlan(port, 1);
    if (rv != 0) {
        VVLAN_LOG_WARN("rv = %d", rv);
    }
    return rv;
}
