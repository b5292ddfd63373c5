/* Each subscription's establishment starts a cycle. For OUIs and ports it is a
 * mark-and-sweep over the records that the module derived from them: mark,
 * scan and apply the configuration (which writes the valid records again or
 * clears their marks), remove what is still marked. Global configuration and
 * port notifications need a plain scan. The end of each cycle asks the
 * forwarding plane to reconcile; the last one makes it act. A step that fails
 * ends its cycle: its flag stays 0, nothing is swept from the forwarding plane,
 * and the next re-initialisation tries again.
 */
#include "udp_vvlan_ds.h"

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"
#include "udp_vvlan.h"
#include "udp_vvlan_debug.h"
#include "udp_vvlan_event.h"
#include "udp_vvlan_fp.h"

constexpr uint64_t VVLAN_DS_EXPIRY = 1000;

uint8_t oui_cfg_scan_over;
uint8_t port_cfg_scan_over;
uint8_t glb_cfg_scan_over;
uint8_t port_noti_scan_over;

/* A template names an object type: a message of it whose key is present and
 * whose fields are all zero. Built where it is used, since messages and keys
 * are linked by pointer. */
#define VVLAN_DS_TEMPLATE(message_type, message_init, key_type, key_init)                                              \
    key_type key = key_init;                                                                                           \
    message_type tmpl = message_init;                                                                                  \
    tmpl.index = &key

static int scan_over_answer(uint8_t *flag, void *ctx)
{
    *flag = 1;
    udp_vvlan_fp_del_expired(ctx);
    return VVLAN_OK;
}

/* ---- OUI configuration ---- */

static int subscribe_oui_cfg(void *ctx, void *entry)
{
    VVLAN_DS_TEMPLATE(PBridge__VvlanOuiCfg, P_BRIDGE__VVLAN_OUI_CFG__INIT, PBridge__BOui, P_BRIDGE__B_OUI__INIT);
    return tq_mom_subscribe(ctx, VVLAN_DB_CONFIG, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
}

int udp_vvlan_ds_pexpire_oui_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    VVLAN_DS_TEMPLATE(UBridge__VvlanOuiCfg, U_BRIDGE__VVLAN_OUI_CFG__INIT, UBridge__VvlanOuiCfgIndex,
                      U_BRIDGE__VVLAN_OUI_CFG_INDEX__INIT);
    VVLAN_LOG_INFO("<ds> pexpire oui_cfg begin");
    const int rv =
        tq_mom_dsbegin(ctx, TQ_MOM_UDP_DB, &tmpl.base, TQ_MOM_MATCH_ALL, VVLAN_DS_EXPIRY, udp_vvlan_ds_callback, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> pexpire oui_cfg failed, rv = %d.", rv);
    } else {
        VVLAN_LOG_INFO("<ds> pexpire oui_cfg successfully.");
    }
    return VVLAN_OK;
}

int udp_vvlan_ds_scan_oui_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    VVLAN_DS_TEMPLATE(PBridge__VvlanOuiCfg, P_BRIDGE__VVLAN_OUI_CFG__INIT, PBridge__BOui, P_BRIDGE__B_OUI__INIT);
    const int rv = tq_mom_scan(ctx, VVLAN_DB_CONFIG, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> scan oui configure failed, rv = %d.", rv);
    } else {
        VVLAN_LOG_DEBUG("<ds> scan oui configure successfully.");
    }
    return rv;
}

int udp_vvlan_ds_del_pexpire_oui_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    VVLAN_DS_TEMPLATE(UBridge__VvlanOuiCfg, U_BRIDGE__VVLAN_OUI_CFG__INIT, UBridge__VvlanOuiCfgIndex,
                      U_BRIDGE__VVLAN_OUI_CFG_INDEX__INIT);
    VVLAN_LOG_INFO("<ds> del pexpire oui_cfg begin");
    const int rv = tq_mom_dsend(ctx, TQ_MOM_UDP_DB, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> del pexpire oui_cfg failed, rv = %d.", rv);
        return VVLAN_OK;
    }
    VVLAN_LOG_INFO("<ds> del pexpire oui_cfg successfully.");
    return scan_over_answer(&oui_cfg_scan_over, ctx);
}

/* ---- Port configuration ---- */

static int subscribe_port_cfg(void *ctx, void *entry)
{
    VVLAN_DS_TEMPLATE(PBridge__VvlanPortCfg, P_BRIDGE__VVLAN_PORT_CFG__INIT, PBridge__VvlanIndex,
                      P_BRIDGE__VVLAN_INDEX__INIT);
    return tq_mom_subscribe(ctx, VVLAN_DB_CONFIG, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
}

static int begin_join(void *ctx)
{
    VVLAN_DS_TEMPLATE(UBridge__VvlanJoin, U_BRIDGE__VVLAN_JOIN__INIT, UBridge__VvlanIndex, U_BRIDGE__VVLAN_INDEX__INIT);
    VVLAN_LOG_INFO("<ds> pexpire vvlan_join begin");
    const int rv = tq_mom_dsbegin_sync(ctx, TQ_MOM_UDP_DB, &tmpl.base, TQ_MOM_MATCH_ALL, VVLAN_DS_EXPIRY);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> pexpire vvlan_join failed, rv = %d.", rv);
    }
    return rv;
}

static int begin_port_auto(void *ctx)
{
    VVLAN_DS_TEMPLATE(PBridge__VvlanPortAuto, P_BRIDGE__VVLAN_PORT_AUTO__INIT, PBridge__VvlanIndex,
                      P_BRIDGE__VVLAN_INDEX__INIT);
    VVLAN_LOG_INFO("<ds> pexpire port_auto begin");
    const int rv = tq_mom_dsbegin_sync(ctx, VVLAN_DB_CONFIG, &tmpl.base, TQ_MOM_MATCH_ALL, VVLAN_DS_EXPIRY);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> pexpire port_auto failed, rv = %d.", rv);
    }
    return rv;
}

static int begin_port_cfg(void *ctx, void *entry)
{
    VVLAN_DS_TEMPLATE(UBridge__VvlanPortCfg, U_BRIDGE__VVLAN_PORT_CFG__INIT, UBridge__VvlanIndex,
                      U_BRIDGE__VVLAN_INDEX__INIT);
    VVLAN_LOG_INFO("<ds> pexpire port_cfg begin");
    const int rv =
        tq_mom_dsbegin(ctx, TQ_MOM_UDP_DB, &tmpl.base, TQ_MOM_MATCH_ALL, VVLAN_DS_EXPIRY, udp_vvlan_ds_callback, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> pexpire port_cfg failed, rv = %d.", rv);
    } else {
        VVLAN_LOG_INFO("<ds> pexpire port_cfg and port_auto successfully.");
    }
    return rv;
}

/* The last step is the one that is answered, so it starts the scan. */
int udp_vvlan_ds_pexpire_port_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    if (begin_join(ctx) == 0 && begin_port_auto(ctx) == 0) {
        begin_port_cfg(ctx, entry);
    }
    return VVLAN_OK;
}

int udp_vvlan_ds_scan_port_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    VVLAN_DS_TEMPLATE(PBridge__VvlanPortCfg, P_BRIDGE__VVLAN_PORT_CFG__INIT, PBridge__VvlanIndex,
                      P_BRIDGE__VVLAN_INDEX__INIT);
    const int rv = tq_mom_scan(ctx, VVLAN_DB_CONFIG, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> scan port configure failed, rv = %d.", rv);
    } else {
        VVLAN_LOG_DEBUG("<ds> scan port configure successfully.");
    }
    return rv;
}

static int end_join(void *ctx)
{
    VVLAN_DS_TEMPLATE(UBridge__VvlanJoin, U_BRIDGE__VVLAN_JOIN__INIT, UBridge__VvlanIndex, U_BRIDGE__VVLAN_INDEX__INIT);
    VVLAN_LOG_INFO("<ds> del pexpire vvlan_join begin");
    const int rv = tq_mom_dsend(ctx, TQ_MOM_UDP_DB, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_nop, nullptr);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> del pexpire vvlan_join failed, rv = %d.", rv);
    }
    return rv;
}

static int end_port_auto(void *ctx, void *entry)
{
    VVLAN_DS_TEMPLATE(PBridge__VvlanPortAuto, P_BRIDGE__VVLAN_PORT_AUTO__INIT, PBridge__VvlanIndex,
                      P_BRIDGE__VVLAN_INDEX__INIT);
    VVLAN_LOG_INFO("<ds> del pexpire port_auto begin");
    const int rv = tq_mom_dsend(ctx, VVLAN_DB_CONFIG, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_nop, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> del pexpire port_auto failed, rv = %d.", rv);
    }
    return rv;
}

static int end_port_cfg(void *ctx, void *entry)
{
    VVLAN_DS_TEMPLATE(UBridge__VvlanPortCfg, U_BRIDGE__VVLAN_PORT_CFG__INIT, UBridge__VvlanIndex,
                      U_BRIDGE__VVLAN_INDEX__INIT);
    VVLAN_LOG_INFO("<ds> del pexpire port_cfg begin");
    const int rv = tq_mom_dsend(ctx, TQ_MOM_UDP_DB, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> del pexpire port_cfg failed, rv = %d.", rv);
    }
    return rv;
}

int udp_vvlan_ds_del_pexpire_port_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    if (end_join(ctx) != 0 || end_port_auto(ctx, entry) != 0 || end_port_cfg(ctx, entry) != 0) {
        return VVLAN_OK;
    }
    VVLAN_LOG_INFO("<ds> del pexpire port_cfg and port_auto successfully.");
    return scan_over_answer(&port_cfg_scan_over, ctx);
}

/* ---- Global configuration ---- */

int udp_vvlan_ds_scan_glb_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    const PBridge__VvlanGlbCfg tmpl = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    const int rv = tq_mom_scan(ctx, VVLAN_DB_CONFIG, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> scan global configure failed, rv = %d.", rv);
    } else {
        VVLAN_LOG_DEBUG("<ds> scan global configure successfully.");
    }
    return rv;
}

int udp_vvlan_ds_glb_cfg_over(void *ctx, [[maybe_unused]] tq_mom_record_t *record, [[maybe_unused]] void *entry)
{
    return scan_over_answer(&glb_cfg_scan_over, ctx);
}

/* ---- Port notifications ---- */

static int subscribe_port_noti(void *ctx, void *entry)
{
    VVLAN_DS_TEMPLATE(SBridge__VvlanPortNoty, S_BRIDGE__VVLAN_PORT_NOTY__INIT, SBridge__VvlanIndex,
                      S_BRIDGE__VVLAN_INDEX__INIT);
    return tq_mom_subscribe(ctx, VVLAN_DB_STATUS, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
}

int udp_vvlan_ds_scan_port_noti(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    VVLAN_DS_TEMPLATE(SBridge__VvlanPortNoty, S_BRIDGE__VVLAN_PORT_NOTY__INIT, SBridge__VvlanIndex,
                      S_BRIDGE__VVLAN_INDEX__INIT);
    const int rv = tq_mom_scan(ctx, VVLAN_DB_STATUS, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> scan port notice failed, rv = %d.", rv);
    } else {
        VVLAN_LOG_DEBUG("<ds> scan port notice successfully.");
    }
    return rv;
}

int udp_vvlan_ds_port_noti_over(void *ctx, [[maybe_unused]] tq_mom_record_t *record, [[maybe_unused]] void *entry)
{
    return scan_over_answer(&port_noti_scan_over, ctx);
}

/* ---- The table and its callback ---- */

int udp_vvlan_ds_nop([[maybe_unused]] void *ctx, [[maybe_unused]] tq_mom_record_t *record, [[maybe_unused]] void *entry)
{
    return VVLAN_OK;
}

/* Fields of the global configuration, each a subscription of its own. */
constexpr uint32_t VVLAN_GLB_ENTRY_COUNT = 4;

static vvlan_ds_entry_t oui_cfg_entry = {udp_vvlan_ds_pexpire_oui_cfg, udp_vvlan_ds_scan_oui_cfg,
                                         udp_vvlan_ds_del_pexpire_oui_cfg, udp_vvlan_event_set_oui_cfg, 0};
static vvlan_ds_entry_t port_cfg_entry = {udp_vvlan_ds_pexpire_port_cfg, udp_vvlan_ds_scan_port_cfg,
                                          udp_vvlan_ds_del_pexpire_port_cfg, udp_vvlan_event_set_port_cfg, 0};
static vvlan_ds_entry_t glb_cfg_entries[VVLAN_GLB_ENTRY_COUNT] = {
    /* The scan of the first field stands for all four: they read one object. */
    {udp_vvlan_ds_scan_glb_cfg, udp_vvlan_ds_nop, udp_vvlan_ds_glb_cfg_over, udp_vvlan_event_set_glb_cfg,
     VVLAN_GLB_FIELD_SWITCH},
    {udp_vvlan_ds_scan_glb_cfg, udp_vvlan_ds_nop, udp_vvlan_ds_nop, udp_vvlan_event_set_glb_cfg,
     VVLAN_GLB_FIELD_SECU_MODE},
    {udp_vvlan_ds_scan_glb_cfg, udp_vvlan_ds_nop, udp_vvlan_ds_nop, udp_vvlan_event_set_glb_cfg,
     VVLAN_GLB_FIELD_AGE_TIME},
    {udp_vvlan_ds_scan_glb_cfg, udp_vvlan_ds_nop, udp_vvlan_ds_nop, udp_vvlan_event_set_glb_cfg, VVLAN_GLB_FIELD_QOS},
};
static vvlan_ds_entry_t port_noti_entry = {udp_vvlan_ds_scan_port_noti, udp_vvlan_ds_nop, udp_vvlan_ds_port_noti_over,
                                           udp_vvlan_event_set_port_noti, 0};

int udp_vvlan_ds_callback(void *ctx, tq_mom_record_t *record, void *entry)
{
    const auto *sync = static_cast<const vvlan_ds_entry_t *>(entry);
    if (sync == nullptr) {
        return VVLAN_E_NO_ENTRY;
    }
    if (record == nullptr) {
        return sync->event(ctx, record, sync->tag); /* the decoder reports it */
    }
    if (record->operate == TQ_MOM_ESTABLISHED) {
        return sync->begin(ctx, record, entry);
    }
    if (record->phase == TQ_MOM_CYCLE_OPEN || record->phase == TQ_MOM_CYCLE_OPEN2) {
        return sync->scan(ctx, record, entry);
    }
    if (record->phase != TQ_MOM_SCAN_OVER) {
        return sync->event(ctx, record, sync->tag);
    }
    const int rv = record->object != nullptr ? sync->event(ctx, record, sync->tag) : VVLAN_E_NO_ENTRY;
    sync->over(ctx, record, entry);
    return rv;
}

static int subscribe_glb_cfg(void *ctx)
{
    const PBridge__VvlanGlbCfg tmpl = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    uint32_t fields[VVLAN_GLB_ENTRY_COUNT];
    tq_mom_callback_t callbacks[VVLAN_GLB_ENTRY_COUNT];
    void *users[VVLAN_GLB_ENTRY_COUNT];
    for (uint32_t i = 0; i < VVLAN_GLB_ENTRY_COUNT; i++) {
        fields[i] = glb_cfg_entries[i].tag;
        callbacks[i] = udp_vvlan_ds_callback;
        users[i] = &glb_cfg_entries[i];
    }
    return tq_mom_subscribe_field(ctx, VVLAN_DB_CONFIG, &tmpl.base, TQ_MOM_MATCH_ALL, fields, callbacks, users,
                                  VVLAN_GLB_ENTRY_COUNT);
}

int udp_vvlan_ds_init(void *ctx, [[maybe_unused]] const char *name)
{
    VVLAN_LOG_INFO("<ds> subscribe oui ");
    int rv = subscribe_oui_cfg(ctx, &oui_cfg_entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> subscribe oui configure failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("<ds> subscribe global configure ");
    rv = subscribe_glb_cfg(ctx);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> subscribe global configure failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("<ds> subscribe port config ");
    rv = subscribe_port_cfg(ctx, &port_cfg_entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> subscribe port config failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("<ds> subscribe port_noti ");
    rv = subscribe_port_noti(ctx, &port_noti_entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> subscribe port_noti failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_INFO("<ds> subscribe successfully.");
    return VVLAN_OK;
}
