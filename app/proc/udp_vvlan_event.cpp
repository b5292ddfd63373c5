/* A decoder checks a record and passes its object to the handler, with an add
 * flag that follows from the operation. The port decoder does one thing more:
 * when an automatic port is set, it clears the stale marks of the port's join
 * state, which the start-up sweep would otherwise remove although the port is
 * still joined.
 */
#include "udp_vvlan_event.h"

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_handler.h"

int udp_vvlan_event_set_oui_cfg([[maybe_unused]] void *ctx, tq_mom_record_t *record, [[maybe_unused]] uint32_t tag)
{
    if (udp_vvlan_event_check(record) != 0 || record->object == nullptr) {
        return VVLAN_E_INVALID;
    }
    const auto *msg = static_cast<const PBridge__VvlanOuiCfg *>(record->object);
    if (udp_vvlan_handler_check_oui_cfg(msg) != 0) {
        return VVLAN_E_INVALID;
    }
    int rv;
    switch (record->operate) {
    case TQ_MOM_SET:
        VVLAN_LOG_INFO("receive a TQ_MOM_SET event. operate=%d .", record->operate);
        rv = udp_vvlan_handler_set_oui_cfg(1, msg);
        break;
    case TQ_MOM_DEL:
        VVLAN_LOG_INFO("receive a TQ_MOM_DEL event. operate=%d .", record->operate);
        rv = udp_vvlan_handler_set_oui_cfg(0, msg);
        break;
    default:
        VVLAN_LOG_WARN("receive a unexpected event. operate=%d .", record->operate);
        return VVLAN_E_UNHANDLED;
    }
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:set vvlan oui failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("set vvlan oui successfully.");
    return VVLAN_OK;
}

static int apply_hash(const tq_mom_hash_t *hash, uint32_t tag)
{
    if (hash->message == nullptr || (hash->fields == nullptr && hash->count != 0)) {
        VVLAN_LOG_ERROR("Assert:MOM hash is incomplete.\n");
        return VVLAN_E_INVALID;
    }
    for (uint32_t i = 0; i < hash->count; i++) {
        VVLAN_LOG_INFO("tag[%d] field[%d].\n", tag, hash->fields[i]);
        if (hash->fields[i] == tag) {
            return udp_vvlan_handler_set_glb_cfg(1, reinterpret_cast<const PBridge__VvlanGlbCfg *>(hash->message), tag);
        }
    }
    return VVLAN_OK;
}

int udp_vvlan_event_set_glb_cfg([[maybe_unused]] void *ctx, tq_mom_record_t *record, uint32_t tag)
{
    if (udp_vvlan_event_check(record) != 0) {
        return VVLAN_E_INVALID;
    }
    if (tag == 0) {
        VVLAN_LOG_ERROR("Assert:MOM args is NULL.\n");
        return VVLAN_E_INVALID;
    }
    if (record->object == nullptr) {
        VVLAN_LOG_ERROR("Assert:MOM hash is NULL.\n");
        return VVLAN_E_INVALID;
    }
    /* With any other operation the object is a message and not a hash-set record. */
    if (record->operate == TQ_MOM_HSET) {
        const auto *hash = static_cast<const tq_mom_hash_t *>(record->object);
        if (hash->error != 0) {
            VVLAN_LOG_ERROR("Assert:MOM hash error is %d.\n", hash->error);
            return VVLAN_E_INVALID;
        }
        VVLAN_LOG_INFO("receive a TQ_MOM_HSET event. operate=%d .", record->operate);
        const int rv = apply_hash(hash, tag);
        if (rv != 0) {
            VVLAN_LOG_ERROR("Assert:set vvlan glb_cfg failed, rv = %d.", rv);
            return rv;
        }
    }
    VVLAN_LOG_INFO("set vvlan glb cfg successfully.");
    return VVLAN_OK;
}

/* Keeps the join state of an automatic port through the start-up sweep: clears
 * the marks, and writes the control side's record again where there is one. */
static int keep_join_state(void *ctx, uint32_t ifx)
{
    PBridge__VvlanIndex auto_key = P_BRIDGE__VVLAN_INDEX__INIT;
    auto_key.ifx = ifx;
    PBridge__VvlanPortAuto port_auto = P_BRIDGE__VVLAN_PORT_AUTO__INIT;
    port_auto.index = &auto_key;
    VVLAN_LOG_INFO("port:%d is auto_mode, clear_expire for port_auto.", ifx);
    int rv = tq_mom_clear_expire(ctx, VVLAN_DB_CONFIG, &port_auto.base, nullptr, nullptr);
    if (rv != 0) {
        VVLAN_LOG_WARN("rv = %d", rv);
        return rv;
    }

    port_auto.enable = 1;
    uint32_t out = 0;
    ProtobufCMessage *stored = tq_mom_get_sync(ctx, VVLAN_DB_CONFIG, &port_auto.base, &out);
    if (stored != nullptr) {
        rv = tq_mom_set(g_udp_vvlan_global, VVLAN_DB_CONFIG, &port_auto.base, nullptr, nullptr);
    }
    if (rv != 0) {
        VVLAN_LOG_WARN("rv = %d", rv);
    }
    tq_mom_tq_obj_free(stored);
    if (rv != 0) {
        return rv;
    }

    UBridge__VvlanIndex join_key = U_BRIDGE__VVLAN_INDEX__INIT;
    join_key.ifx = ifx;
    UBridge__VvlanJoin join = U_BRIDGE__VVLAN_JOIN__INIT;
    join.index = &join_key;
    rv = tq_mom_clear_expire(ctx, TQ_MOM_UDP_DB, &join.base, nullptr, nullptr);
    if (rv != 0) {
        VVLAN_LOG_WARN("rv = %d", rv);
    }
    return rv;
}

int udp_vvlan_event_set_port_cfg(void *ctx, tq_mom_record_t *record, [[maybe_unused]] uint32_t tag)
{
    if (udp_vvlan_event_check(record) != 0) {
        return VVLAN_E_INVALID;
    }
    if (record->phase == TQ_MOM_NOTHING) {
        return VVLAN_OK;
    }
    const auto *msg = static_cast<const PBridge__VvlanPortCfg *>(record->object);
    if (udp_vvlan_handler_check_port_cfg(msg) != 0) {
        return VVLAN_E_INVALID;
    }
    int rv;
    switch (record->operate) {
    case TQ_MOM_SET:
        VVLAN_LOG_INFO("receive a TQ_MOM_SET event.");
        if (msg->mode == 1) {
            rv = keep_join_state(ctx, msg->index->ifx);
            if (rv != 0) {
                return rv;
            }
        }
        rv = udp_vvlan_handler_set_port_cfg(1, msg);
        break;
    case TQ_MOM_DEL:
        VVLAN_LOG_INFO("receive a TQ_MOM_DEL event.");
        rv = udp_vvlan_handler_set_port_cfg(0, msg);
        break;
    default:
        VVLAN_LOG_WARN("receive a unexpected event.");
        return VVLAN_E_UNHANDLED;
    }
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:set vvlan port_cfg failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("set vvlan port_cfg successfully.");
    return VVLAN_OK;
}

int udp_vvlan_event_set_port_noti([[maybe_unused]] void *ctx, tq_mom_record_t *record, [[maybe_unused]] uint32_t tag)
{
    if (udp_vvlan_event_check(record) != 0) {
        return VVLAN_E_INVALID;
    }
    const auto *msg = static_cast<const SBridge__VvlanPortNoty *>(record->object);
    if (msg == nullptr) {
        VVLAN_LOG_ERROR("Assert:msg vvlan_port_noty param failed.");
        return VVLAN_OK;
    }
    if (record->operate != TQ_MOM_SET && record->operate != TQ_MOM_PUBLISH) {
        VVLAN_LOG_WARN("receive a unexpected event. operate=%d .", record->operate);
        return VVLAN_E_UNHANDLED;
    }
    VVLAN_LOG_INFO("receive a TQ_MOM_SET or TQ_MOM_PUBLISH event. operate=%d .", record->operate);
    const int rv = udp_vvlan_handler_set_port_noti(1, msg);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:set mac_noti failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("set mac_noti successfully.");
    return VVLAN_OK;
}
