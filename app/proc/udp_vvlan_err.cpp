/* A report carries its type and what identifies the failed configuration. It
 * is built on the stack and written once. The result of the write is ignored:
 * there is no other way to report that.
 */
#include "udp_vvlan_err.h"

#include "p_bridge.pb-c.h"
#include "tq_mom.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_oui_node.h"

/* The message, with the sub-messages of all types of report. */
typedef struct vvlan_err_report {
    PBridge__VvlanErrEvent event;
    PBridge__BQos qos;
    PBridge__BOui oui;
    PLibpub__Mac mac;
    PLibpub__Mac mask;
} vvlan_err_report_t;

static void add_oui(vvlan_err_report_t *report, const vvlan_oui_t *oui)
{
    report->mac.data = {VVLAN_MAC_SIZE, const_cast<uint8_t *>(oui->mac)};
    report->mask.data = {VVLAN_MAC_SIZE, const_cast<uint8_t *>(oui->mask)};
    report->oui.mac = &report->mac;
    report->oui.mask = &report->mask;
    report->event.oui = &report->oui;
}

static void add_qos(vvlan_err_report_t *report)
{
    report->qos.cos = g_udp_vvlan_glb_cfg.cos;
    report->qos.dscp = g_udp_vvlan_glb_cfg.dscp;
    report->event.qos = &report->qos;
}

/* False for a type that cannot be reported. */
static bool fill_report(vvlan_err_report_t *report, uint32_t type, const void *data)
{
    switch (type) {
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_ENABLE:
        VVLAN_LOG_INFO("ERR_TYPE__VVLAN_SET_ENABLE！");
        report->event.vid = g_udp_vvlan_glb_cfg.vid;
        return true;
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_PORT_ENABLE:
        if (data == nullptr) {
            break;
        }
        VVLAN_LOG_INFO("ERR_TYPE__VVLAN_SET_PORT_ENABLE！");
        report->event.ifx = *static_cast<const uint32_t *>(data);
        return true;
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_OUI_CONFIG:
        if (data == nullptr) {
            break;
        }
        VVLAN_LOG_INFO("ERR_TYPE__VVLAN_SET_OUI_CONFIG！");
        add_oui(report, static_cast<const vvlan_oui_t *>(data));
        return true;
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_QOS_CONFIG:
        VVLAN_LOG_INFO("ERR_TYPE__VVLAN_SET_QOS_CONFIG！");
        add_qos(report);
        return true;
    case P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_SECURITY_MOD:
        VVLAN_LOG_INFO("ERR_TYPE__VVLAN_SET_SECURITY_MOD！");
        return true;
    default:
        break;
    }
    VVLAN_LOG_ERROR("err_type(%d) not support！", type);
    return false;
}

void udp_vvlan_handler_err_event(uint32_t type, const void *data)
{
    vvlan_err_report_t report = {P_BRIDGE__VVLAN_ERR_EVENT__INIT, P_BRIDGE__B_QOS__INIT, P_BRIDGE__B_OUI__INIT,
                                 P_LIBPUB__MAC__INIT, P_LIBPUB__MAC__INIT};
    report.event.msg_type = type;
    if (!fill_report(&report, type, data)) {
        return;
    }
    VVLAN_LOG_INFO("err_type(%d) notice to PI！", type);
    tq_mom_set(g_udp_vvlan_global, VVLAN_DB_CONFIG, &report.event.base, nullptr, nullptr);
}
