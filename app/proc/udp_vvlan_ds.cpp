/* Each subscription's establishment starts a cycle. For OUIs and ports it is a
 * mark-and-sweep over the records that the module derived from them: mark,
 * scan and apply the configuration (which writes the valid records again or
 * clears their marks), remove what is still marked. Global configuration and
 * port notifications need a plain scan. The end of each cycle asks the
 * forwarding plane to reconcile, which happens after the last one. A step that
 * fails ends its cycle: its flag stays 0, nothing is swept from the forwarding
 * plane, and the next re-initialisation tries again.
 */
#include "udp_vvlan_ds.h"

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"
#include "udp_vvlan_base.h"
#include "udp_vvlan_event.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_handler.h"

constexpr uint64_t VVLAN_DS_EXPIRY = 1000;

/* ---- Templates ---- */

/* A template names an object type: a message of it whose key is present and
 * whose fields are all zero. */
template <typename Message, typename Key> static constexpr Message with_key(Message message, const Key *key)
{
    message.index = const_cast<Key *>(key);
    return message;
}

static constexpr PBridge__BOui oui_key = P_BRIDGE__B_OUI__INIT;
static constexpr PBridge__VvlanIndex port_key = P_BRIDGE__VVLAN_INDEX__INIT;
static constexpr SBridge__VvlanIndex noti_key = S_BRIDGE__VVLAN_INDEX__INIT;
static constexpr UBridge__VvlanOuiCfgIndex own_oui_key = U_BRIDGE__VVLAN_OUI_CFG_INDEX__INIT;
static constexpr UBridge__VvlanIndex own_port_key = U_BRIDGE__VVLAN_INDEX__INIT;

static constexpr auto oui_cfg = with_key<PBridge__VvlanOuiCfg>(P_BRIDGE__VVLAN_OUI_CFG__INIT, &oui_key);
static constexpr PBridge__VvlanGlbCfg glb_cfg = P_BRIDGE__VVLAN_GLB_CFG__INIT;
static constexpr auto port_cfg = with_key<PBridge__VvlanPortCfg>(P_BRIDGE__VVLAN_PORT_CFG__INIT, &port_key);
static constexpr auto port_auto = with_key<PBridge__VvlanPortAuto>(P_BRIDGE__VVLAN_PORT_AUTO__INIT, &port_key);
static constexpr auto port_noti = with_key<SBridge__VvlanPortNoty>(S_BRIDGE__VVLAN_PORT_NOTY__INIT, &noti_key);
static constexpr auto own_oui_cfg = with_key<UBridge__VvlanOuiCfg>(U_BRIDGE__VVLAN_OUI_CFG__INIT, &own_oui_key);
static constexpr auto own_port_cfg = with_key<UBridge__VvlanPortCfg>(U_BRIDGE__VVLAN_PORT_CFG__INIT, &own_port_key);
static constexpr auto own_join = with_key<UBridge__VvlanJoin>(U_BRIDGE__VVLAN_JOIN__INIT, &own_port_key);

/* ---- What is subscribed and scanned ---- */

static vvlan_ds_entry_t oui_cfg_entry = {
    .begin = udp_vvlan_ds_pexpire_oui_cfg,
    .scan = udp_vvlan_ds_scan_oui_cfg,
    .over = udp_vvlan_ds_del_pexpire_oui_cfg,
    .event = udp_vvlan_event_set_oui_cfg,
    .tag = 0,
};
static vvlan_ds_entry_t port_cfg_entry = {
    .begin = udp_vvlan_ds_pexpire_port_cfg,
    .scan = udp_vvlan_ds_scan_port_cfg,
    .over = udp_vvlan_ds_del_pexpire_port_cfg,
    .event = udp_vvlan_event_set_port_cfg,
    .tag = 0,
};
static vvlan_ds_entry_t port_noti_entry = {
    .begin = udp_vvlan_ds_scan_port_noti,
    .scan = udp_vvlan_ds_nop,
    .over = udp_vvlan_ds_port_noti_over,
    .event = udp_vvlan_event_set_port_noti,
    .tag = 0,
};

/* A field of the global configuration; each is a subscription of its own. */
static constexpr vvlan_ds_entry_t make_field_entry(uint32_t tag, tq_mom_callback_t over)
{
    return {
        .begin = udp_vvlan_ds_scan_glb_cfg,
        .scan = udp_vvlan_ds_nop,
        .over = over,
        .event = udp_vvlan_event_set_glb_cfg,
        .tag = tag,
    };
}

/* The scan of the first field stands for all four: they read one object. */
constexpr uint32_t VVLAN_GLB_ENTRY_COUNT = 4;
static vvlan_ds_entry_t glb_cfg_entries[VVLAN_GLB_ENTRY_COUNT] = {
    make_field_entry(VVLAN_GLB_FIELD_SWITCH, udp_vvlan_ds_glb_cfg_over),
    make_field_entry(VVLAN_GLB_FIELD_SECU_MODE, udp_vvlan_ds_nop),
    make_field_entry(VVLAN_GLB_FIELD_AGE_TIME, udp_vvlan_ds_nop),
    make_field_entry(VVLAN_GLB_FIELD_QOS, udp_vvlan_ds_nop),
};

/* An object type that the module reads. */
typedef struct vvlan_ds_source {
    uint32_t db;
    const ProtobufCMessage *tmpl;
    vvlan_ds_entry_t *entry; /* of its subscription; null: it is subscribed by fields, glb_cfg_entries */
    /* Its names in the log lines of a subscription, a failed one, and a scan. */
    const char *subscribe_name;
    const char *subscribe_failed;
    const char *scan_name;
} vvlan_ds_source_t;

static const vvlan_ds_source_t oui_cfg_source = {
    .db = VVLAN_DB_CONFIG,
    .tmpl = &oui_cfg.base,
    .entry = &oui_cfg_entry,
    .subscribe_name = "oui",
    .subscribe_failed = "oui configure",
    .scan_name = "oui configure",
};
static const vvlan_ds_source_t glb_cfg_source = {
    .db = VVLAN_DB_CONFIG,
    .tmpl = &glb_cfg.base,
    .entry = nullptr,
    .subscribe_name = "global configure",
    .subscribe_failed = "global configure",
    .scan_name = "global configure",
};
static const vvlan_ds_source_t port_cfg_source = {
    .db = VVLAN_DB_CONFIG,
    .tmpl = &port_cfg.base,
    .entry = &port_cfg_entry,
    .subscribe_name = "port config",
    .subscribe_failed = "port config",
    .scan_name = "port configure",
};
static const vvlan_ds_source_t port_noti_source = {
    .db = VVLAN_DB_STATUS,
    .tmpl = &port_noti.base,
    .entry = &port_noti_entry,
    .subscribe_name = "port_noti",
    .subscribe_failed = "port_noti",
    .scan_name = "port notice",
};

static int subscribe_fields(void *ctx, const vvlan_ds_source_t *source)
{
    uint32_t fields[VVLAN_GLB_ENTRY_COUNT];
    tq_mom_callback_t callbacks[VVLAN_GLB_ENTRY_COUNT];
    void *users[VVLAN_GLB_ENTRY_COUNT];
    for (uint32_t i = 0; i < VVLAN_GLB_ENTRY_COUNT; i++) {
        fields[i] = glb_cfg_entries[i].tag;
        callbacks[i] = udp_vvlan_ds_callback;
        users[i] = &glb_cfg_entries[i];
    }
    return tq_mom_subscribe_field(ctx, source->db, source->tmpl, TQ_MOM_MATCH_ALL, fields, callbacks, users,
                                  VVLAN_GLB_ENTRY_COUNT);
}

int udp_vvlan_ds_init(void *ctx, [[maybe_unused]] const char *name)
{
    static const vvlan_ds_source_t *const sources[] = {&oui_cfg_source, &glb_cfg_source, &port_cfg_source,
                                                       &port_noti_source};
    for (const vvlan_ds_source_t *source : sources) {
        VVLAN_LOG_INFO("<ds> subscribe %s ", source->subscribe_name);
        const int rv = source->entry == nullptr ? subscribe_fields(ctx, source)
                                                : tq_mom_subscribe(ctx, source->db, source->tmpl, TQ_MOM_MATCH_ALL,
                                                                   udp_vvlan_ds_callback, source->entry);
        if (rv != 0) {
            VVLAN_LOG_ERROR("Assert:<ds> subscribe %s failed, rv = %d.", source->subscribe_failed, rv);
            return rv;
        }
    }
    VVLAN_LOG_INFO("<ds> subscribe successfully.");
    return VVLAN_OK;
}

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

int udp_vvlan_ds_nop([[maybe_unused]] void *ctx, [[maybe_unused]] tq_mom_record_t *record, [[maybe_unused]] void *entry)
{
    return VVLAN_OK;
}

/* ---- Scans ---- */

static int scan(void *ctx, const vvlan_ds_source_t *source, void *entry)
{
    const int rv = tq_mom_scan(ctx, source->db, source->tmpl, TQ_MOM_MATCH_ALL, udp_vvlan_ds_callback, entry);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> scan %s failed, rv = %d.", source->scan_name, rv);
    } else {
        VVLAN_LOG_DEBUG("<ds> scan %s successfully.", source->scan_name);
    }
    return rv;
}

int udp_vvlan_ds_scan_oui_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    return scan(ctx, &oui_cfg_source, entry);
}

int udp_vvlan_ds_scan_port_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    return scan(ctx, &port_cfg_source, entry);
}

int udp_vvlan_ds_scan_glb_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    return scan(ctx, &glb_cfg_source, entry);
}

int udp_vvlan_ds_scan_port_noti(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    return scan(ctx, &port_noti_source, entry);
}

/* ---- Mark and sweep ---- */

/* One type of derived records. */
typedef struct vvlan_ds_sweep {
    const char *name; /* in log lines */
    uint32_t db;
    const ProtobufCMessage *tmpl;
    bool end_takes_entry; /* the entry goes with the call that ends the cycle */
} vvlan_ds_sweep_t;

/* The last sweep is the one whose begin is answered, so it starts the scan. */
typedef struct vvlan_ds_cycle {
    const char *name; /* in log lines */
    const vvlan_ds_sweep_t *sweeps;
    uint32_t sweep_count;
    uint8_t *scan_over; /* set when the cycle has ended */
} vvlan_ds_cycle_t;

static const vvlan_ds_sweep_t oui_cfg_sweeps[] = {
    {.name = "oui_cfg", .db = TQ_MOM_UDP_DB, .tmpl = &own_oui_cfg.base, .end_takes_entry = true},
};
static const vvlan_ds_cycle_t oui_cfg_cycle = {
    .name = "oui_cfg", .sweeps = oui_cfg_sweeps, .sweep_count = 1, .scan_over = &oui_cfg_scan_over};

static const vvlan_ds_sweep_t port_cfg_sweeps[] = {
    {.name = "vvlan_join", .db = TQ_MOM_UDP_DB, .tmpl = &own_join.base, .end_takes_entry = false},
    {.name = "port_auto", .db = VVLAN_DB_CONFIG, .tmpl = &port_auto.base, .end_takes_entry = true},
    {.name = "port_cfg", .db = TQ_MOM_UDP_DB, .tmpl = &own_port_cfg.base, .end_takes_entry = true},
};
static const vvlan_ds_cycle_t port_cfg_cycle = {
    .name = "port_cfg and port_auto", .sweeps = port_cfg_sweeps, .sweep_count = 3, .scan_over = &port_cfg_scan_over};

static int begin_cycle(void *ctx, const vvlan_ds_cycle_t *cycle, void *entry)
{
    const vvlan_ds_sweep_t *last = &cycle->sweeps[cycle->sweep_count - 1];
    for (const vvlan_ds_sweep_t *sweep = cycle->sweeps; sweep <= last; sweep++) {
        VVLAN_LOG_INFO("<ds> pexpire %s begin", sweep->name);
        const int rv = sweep != last
                           ? tq_mom_dsbegin_sync(ctx, sweep->db, sweep->tmpl, TQ_MOM_MATCH_ALL, VVLAN_DS_EXPIRY)
                           : tq_mom_dsbegin(ctx, sweep->db, sweep->tmpl, TQ_MOM_MATCH_ALL, VVLAN_DS_EXPIRY,
                                            udp_vvlan_ds_callback, entry);
        if (rv != 0) {
            VVLAN_LOG_ERROR("Assert:<ds> pexpire %s failed, rv = %d.", sweep->name, rv);
            return VVLAN_OK;
        }
    }
    VVLAN_LOG_INFO("<ds> pexpire %s successfully.", cycle->name);
    return VVLAN_OK;
}

static int finish_scan(void *ctx, uint8_t *scan_over)
{
    *scan_over = 1;
    udp_vvlan_fp_del_expired(ctx);
    return VVLAN_OK;
}

static int end_cycle(void *ctx, const vvlan_ds_cycle_t *cycle, void *entry)
{
    const vvlan_ds_sweep_t *last = &cycle->sweeps[cycle->sweep_count - 1];
    for (const vvlan_ds_sweep_t *sweep = cycle->sweeps; sweep <= last; sweep++) {
        VVLAN_LOG_INFO("<ds> del pexpire %s begin", sweep->name);
        const int rv = tq_mom_dsend(ctx, sweep->db, sweep->tmpl, TQ_MOM_MATCH_ALL,
                                    sweep == last ? udp_vvlan_ds_callback : udp_vvlan_ds_nop,
                                    sweep->end_takes_entry ? entry : nullptr);
        if (rv != 0) {
            VVLAN_LOG_ERROR("Assert:<ds> del pexpire %s failed, rv = %d.", sweep->name, rv);
            return VVLAN_OK;
        }
    }
    VVLAN_LOG_INFO("<ds> del pexpire %s successfully.", cycle->name);
    return finish_scan(ctx, cycle->scan_over);
}

int udp_vvlan_ds_pexpire_oui_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    return begin_cycle(ctx, &oui_cfg_cycle, entry);
}

int udp_vvlan_ds_del_pexpire_oui_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    return end_cycle(ctx, &oui_cfg_cycle, entry);
}

int udp_vvlan_ds_pexpire_port_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    return begin_cycle(ctx, &port_cfg_cycle, entry);
}

int udp_vvlan_ds_del_pexpire_port_cfg(void *ctx, [[maybe_unused]] tq_mom_record_t *record, void *entry)
{
    return end_cycle(ctx, &port_cfg_cycle, entry);
}

int udp_vvlan_ds_glb_cfg_over(void *ctx, [[maybe_unused]] tq_mom_record_t *record, [[maybe_unused]] void *entry)
{
    return finish_scan(ctx, &glb_cfg_scan_over);
}

int udp_vvlan_ds_port_noti_over(void *ctx, [[maybe_unused]] tq_mom_record_t *record, [[maybe_unused]] void *entry)
{
    return finish_scan(ctx, &port_noti_scan_over);
}
