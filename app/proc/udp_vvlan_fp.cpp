/* The module owns three ACLs. The CoS and the MAC-VLAN ACL hold an ACE per OUI,
 * the security ACL a single ACE for the whole voice VLAN. They differ in their
 * names, ids, fields and texts only, so each is a row, and one function sets,
 * fills or binds any of them.
 *
 * ACEs are not kept here: they are built again from the configuration whenever
 * a value that they carry changes, and an ACE set under its old id replaces the
 * old one in the plane.
 */
#include "udp_vvlan_fp.h"

#include "udp_vvlan_base.h"

#include <string.h>

static_assert(sizeof(vvlan_acl_desc_t) == 72, "descriptor layout is the plane's");
static_assert(sizeof(vvlan_apply_t) == 44, "apply record layout is the plane's");
static_assert(sizeof(fp_udp_field_t) == FP_UDP_FIELD_SIZE, "field record size is the plane's");

/* What sets one ACL apart from the others. Its log lines differ in their
 * punctuation, which stays as it is, since people search logs for them. */
typedef struct vvlan_acl_kind {
    const char *name; /* in log lines */
    char app_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t acl_id;
    uint32_t apply_opt;
    void (*fill)(fp_udp_ace_t *ace, const vvlan_oui_t *oui); /* appends the fields of an ACE */

    bool logs_oui;               /* an ACE's log lines begin with the OUI */
    bool only_enabled;           /* bound only while the voice VLAN is on; logged with the object's address */
    const char *switch_comma[2]; /* in the log lines before and after a switch */
    const char *switch_stop[2];
    const char *alloc_verb; /* in the log line of a failed switch */
} vvlan_acl_kind_t;

static void fill_cos_ace(fp_udp_ace_t *ace, const vvlan_oui_t *oui);
static void fill_mvlan_ace(fp_udp_ace_t *ace, const vvlan_oui_t *oui);
static void fill_sec_ace(fp_udp_ace_t *ace, const vvlan_oui_t *oui);

static const vvlan_acl_kind_t vvlan_cos_kind = {
    .name = "cos",
    .app_type = "vvlan_secu_pas_app",
    .acl_id = 101,
    .apply_opt = 0,
    .fill = fill_cos_ace,
    .logs_oui = true,
    .only_enabled = false,
    .switch_comma = {" , ", " , "},
    .switch_stop = {".", ""},
    .alloc_verb = "alloc",
};
static const vvlan_acl_kind_t vvlan_mvlan_kind = {
    .name = "mvlan",
    .app_type = "mac_vlan_app",
    .acl_id = 102,
    .apply_opt = 1,
    .fill = fill_mvlan_ace,
    .logs_oui = false,
    .only_enabled = false,
    .switch_comma = {", ", " ,  "},
    .switch_stop = {".", "."},
    .alloc_verb = "aloc",
};
static const vvlan_acl_kind_t vvlan_sec_kind = {
    .name = "sec",
    .app_type = "vvlan_secu_deny_app",
    .acl_id = 100,
    .apply_opt = 0,
    .fill = fill_sec_ace,
    .logs_oui = false,
    .only_enabled = true,
    .switch_comma = {" , ", " , "},
    .switch_stop = {".", "."},
    .alloc_verb = "alloc",
};

/* The order in which they are marked, swept and switched. */
static const vvlan_acl_kind_t *const vvlan_kinds[] = {&vvlan_cos_kind, &vvlan_mvlan_kind, &vvlan_sec_kind};

constexpr uint64_t VVLAN_SEC_ACE_ID = 1; /* the only ACE of its ACL */

uint8_t oui_cfg_scan_over;
uint8_t port_cfg_scan_over;
uint8_t glb_cfg_scan_over;
uint8_t port_noti_scan_over;

uint8_t g_vvlan_ace_id_pool[VVLAN_ACE_POOL_SIZE];

static fp_udp_mgr_t *vvlan_fp_mgr; /* owned by the forwarding-plane library */

const fp_udp_acl_cb_tbl_t udp_vvlan_fp_cb_tbl = {udp_vvlan_fp_cb_acl_success,   udp_vvlan_fp_cb_acl_failed,
                                                 udp_vvlan_fp_cb_ace_success,   udp_vvlan_fp_cb_ace_failed,
                                                 udp_vvlan_fp_cb_apply_success, udp_vvlan_fp_cb_apply_failed};

/* ---- Registration and reconciliation ---- */

int udp_vvlan_fp_init(void *ctx, const char *name)
{
    int rv = fp_udp_register_acl_handler(ctx, FP_UDP_APP_VVLAN, &udp_vvlan_fp_cb_tbl);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<init> register fp failed, rv = %d.", rv);
        return rv;
    }
    rv = fp_udp_cgst_register(ctx, FP_UDP_APP_VVLAN, name);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<init> register fp congestion failed, rv = %d.", rv);
        return rv;
    }
    vvlan_fp_mgr = fp_udp_get_mgr();
    if (vvlan_fp_mgr == nullptr) {
        VVLAN_LOG_ERROR("Assert:<init> get fp mgr failed.");
        return VVLAN_E_UNAVAILABLE;
    }
    const fp_udp_mgr_ops_t *ops = vvlan_fp_mgr->ops;
    for (const vvlan_acl_kind_t *kind : vvlan_kinds) {
        ops->acl_expire(ctx, kind->app_type);
        ops->ace_expire(ctx, kind->app_type);
        ops->apply_expire(ctx, kind->app_type);
    }
    VVLAN_LOG_INFO("<init> init fp successfully.");
    return VVLAN_OK;
}

void udp_vvlan_fp_del_expired(void *ctx)
{
    if (oui_cfg_scan_over == 0 || glb_cfg_scan_over == 0 || port_cfg_scan_over == 0 || port_noti_scan_over == 0) {
        return;
    }
    const fp_udp_mgr_ops_t *ops = vvlan_fp_mgr->ops;
    for (const vvlan_acl_kind_t *kind : vvlan_kinds) {
        ops->acl_del_expired(ctx, kind->app_type);
        ops->ace_del_expired(ctx, kind->app_type);
        ops->apply_del_expired(ctx, kind->app_type);
    }
}

/* ---- ACLs ---- */

static void log_switch(const vvlan_acl_kind_t *kind, uint32_t done, const vvlan_acl_t *acl, uint32_t add)
{
    VVLAN_LOG_INFO("set %s acl_id(%d)%sadd=%d%s", kind->name, acl->desc.acl_id, kind->switch_comma[done], add,
                   kind->switch_stop[done]);
}

static int set_acl(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl, uint32_t add)
{
    if ((acl->created != 0) == (add != 0)) {
        return VVLAN_OK;
    }
    log_switch(kind, 0, acl, add);
    memset(&acl->desc, 0, sizeof acl->desc);
    memcpy(acl->desc.app_type, kind->app_type, sizeof acl->desc.app_type);
    acl->desc.acl_id = kind->acl_id;
    acl->desc.acl_kind = FP_UDP_ACL_KIND_VVLAN;
    if (add != 0) {
        vvlan_fp_mgr->ops->acl_set(g_udp_vvlan_global, &acl->desc);
        acl->created = 1;
    } else {
        vvlan_fp_mgr->ops->acl_del(g_udp_vvlan_global, &acl->desc);
        acl->created = 0;
    }
    log_switch(kind, 1, acl, add);
    return VVLAN_OK;
}

int udp_vvlan_set_cos_acl(vvlan_acl_t *acl, uint32_t add)
{
    return set_acl(&vvlan_cos_kind, acl, add);
}

int udp_vvlan_set_mvlan_acl(vvlan_acl_t *acl, uint32_t add)
{
    return set_acl(&vvlan_mvlan_kind, acl, add);
}

int udp_vvlan_set_sec_acl(vvlan_acl_t *acl, uint32_t add)
{
    return set_acl(&vvlan_sec_kind, acl, add);
}

int udp_vvlan_set_acl_exec(uint32_t add)
{
    vvlan_acl_t *acl[] = {&g_udp_vvlan_glb_cfg.cos_acl, &g_udp_vvlan_glb_cfg.mvlan_acl, &g_udp_vvlan_glb_cfg.sec_acl};
    for (uint32_t i = 0; i < 3; i++) {
        const int rv = set_acl(vvlan_kinds[i], acl[i], add);
        if (rv != 0) {
            VVLAN_LOG_ERROR("Assert:udp_vvlan_set_%s_acl failed, rv = %d.", vvlan_kinds[i]->name, rv);
            return rv;
        }
    }
    return VVLAN_OK;
}

int udp_vvlan_set_acl(uint32_t add)
{
    const int rv = udp_vvlan_set_acl_exec(add);
    if (rv != 0) {
        g_udp_vvlan_glb_cfg.vid = 0;
    }
    return rv;
}

/* ---- ACE ids ---- */

uint32_t udp_vvlan_alloc_ace_id(void)
{
    VVLAN_LOG_DEBUG(".");
    for (uint32_t id = 1; id < VVLAN_ACE_ID_COUNT; id++) {
        const auto bit = static_cast<uint8_t>(1u << (id % 8));
        if ((g_vvlan_ace_id_pool[id / 8] & bit) == 0) {
            g_vvlan_ace_id_pool[id / 8] |= bit;
            return id;
        }
    }
    return VVLAN_ACE_ID_NONE;
}

void udp_vvlan_free_ace_id(int id)
{
    const auto index = static_cast<uint32_t>(id);
    if (index < VVLAN_ACE_ID_COUNT) {
        g_vvlan_ace_id_pool[index / 8] &= static_cast<uint8_t>(~(1u << (index % 8)));
    }
}

/* ---- ACEs ---- */

constexpr uint32_t VVLAN_ACTION_SIZE = 6; /* bytes of a remark action; its value is byte 0 */

static void add_field(fp_udp_ace_t *ace, const char *name, uint32_t kind, const void *value, uint32_t length)
{
    const fp_udp_fields_ops_t *ops = ace->fields->ops;
    ops->field_add(ace->fields, ops->field_make(name, kind, value, length));
}

static void add_src_mac(fp_udp_ace_t *ace, const vvlan_oui_t *oui)
{
    uint8_t value[2 * VVLAN_MAC_SIZE];
    memcpy(value, oui->mac, VVLAN_MAC_SIZE);
    memcpy(value + VVLAN_MAC_SIZE, oui->mask, VVLAN_MAC_SIZE);
    add_field(ace, "src_mac", FP_UDP_FIELD_MATCH, value, sizeof value);
}

static void add_vid(fp_udp_ace_t *ace)
{
    const auto vid = static_cast<uint16_t>(g_udp_vvlan_glb_cfg.vid);
    const uint8_t value[] = {static_cast<uint8_t>(vid), static_cast<uint8_t>(vid >> 8), 0xFF, 0xFF};
    add_field(ace, "vid", FP_UDP_FIELD_MATCH, value, sizeof value);
}

static void add_remark(fp_udp_ace_t *ace)
{
    const uint8_t cos[VVLAN_ACTION_SIZE] = {g_udp_vvlan_glb_cfg.cos};
    const uint8_t dscp[VVLAN_ACTION_SIZE] = {g_udp_vvlan_glb_cfg.dscp};
    add_field(ace, "cos", FP_UDP_FIELD_ACTION, cos, sizeof cos);
    add_field(ace, "ipv4_dscp", FP_UDP_FIELD_ACTION, dscp, sizeof dscp);
    add_field(ace, "prio_in", FP_UDP_FIELD_ACTION, cos, sizeof cos);
}

static void fill_cos_ace(fp_udp_ace_t *ace, const vvlan_oui_t *oui)
{
    add_src_mac(ace, oui);
    add_vid(ace);
    add_remark(ace);
}

static void fill_mvlan_ace(fp_udp_ace_t *ace, const vvlan_oui_t *oui)
{
    const uint8_t untagged[] = {0, 3}; /* value, mask */
    const auto vid = static_cast<uint16_t>(g_udp_vvlan_glb_cfg.vid);
    const uint8_t tag[] = {static_cast<uint8_t>(vid), static_cast<uint8_t>(vid >> 8), 0, 0};
    add_src_mac(ace, oui);
    add_field(ace, "vlan_form", FP_UDP_FIELD_MATCH, untagged, sizeof untagged);
    add_field(ace, "add_tag", FP_UDP_FIELD_ACTION, tag, sizeof tag);
}

static void fill_sec_ace(fp_udp_ace_t *ace, [[maybe_unused]] const vvlan_oui_t *oui)
{
    add_vid(ace);
    if (g_udp_vvlan_glb_cfg.secu_mode != 0) {
        const uint8_t deny = 0;
        add_field(ace, "fwd", FP_UDP_FIELD_ACTION, &deny, sizeof deny);
    } else {
        add_remark(ace);
    }
}

/* Installs the ACE under its id, in place of the one that had it. */
static int install_ace(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl, uint64_t id, const vvlan_oui_t *oui)
{
    VVLAN_LOG_INFO("add %s ace(%d) begin:", kind->name, static_cast<int>(id));
    fp_udp_ace_t *ace = vvlan_fp_mgr->ops->ace_alloc(id, 0);
    if (ace == nullptr) {
        VVLAN_LOG_ERROR("Assert:alloc ace get a (NULL) data.");
        return VVLAN_E_NO_OBJECT;
    }
    kind->fill(ace, oui);
    vvlan_fp_mgr->ops->ace_set(g_udp_vvlan_global, &acl->desc, ace);
    vvlan_fp_mgr->ops->ace_free(ace);
    VVLAN_LOG_INFO("add %s ace(%d) end.", kind->name, static_cast<int>(id));
    return VVLAN_OK;
}

/* The ACL exists before an ACE goes into it. oui: null for the one ACE of the
 * security ACL. */
static int set_ace(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl, const vvlan_oui_t *oui, uint32_t add)
{
    const uint64_t id = oui != nullptr ? oui->ace_id : VVLAN_SEC_ACE_ID;
    const int rv = add != 0 ? set_acl(kind, acl, 1) : VVLAN_OK;
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:%s %s acl failed, rv = %d.", kind->alloc_verb, kind->name, rv);
        return rv;
    }
    if (kind->logs_oui && oui != nullptr) {
        VVLAN_LOG_INFO("%x %x %x ", oui->mac[0], oui->mac[1], oui->mac[2]);
    }
    if (add != 0) {
        return install_ace(kind, acl, id, oui);
    }
    vvlan_fp_mgr->ops->ace_del(g_udp_vvlan_global, &acl->desc, id);
    VVLAN_LOG_INFO("del %s ace(%d) end.", kind->name, static_cast<int>(id));
    return VVLAN_OK;
}

int udp_vvlan_set_cos_ace(vvlan_acl_t *acl, const vvlan_oui_t *oui, uint32_t add)
{
    return set_ace(&vvlan_cos_kind, acl, oui, add);
}

int udp_vvlan_set_mvlan_ace(vvlan_acl_t *acl, const vvlan_oui_t *oui, uint32_t add)
{
    return set_ace(&vvlan_mvlan_kind, acl, oui, add);
}

int udp_vvlan_set_sec_ace(vvlan_acl_t *acl, uint32_t add)
{
    return set_ace(&vvlan_sec_kind, acl, nullptr, add);
}

/* ---- Bindings ---- */

static int apply_acl(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl, uint32_t phyid, uint32_t apply)
{
    const fp_udp_mgr_ops_t *ops = vvlan_fp_mgr->ops;
    vvlan_apply_t record = {};
    memcpy(record.app_type, kind->app_type, sizeof record.app_type);
    record.phyid = phyid;
    record.apply_opt = kind->apply_opt;
    if (apply == 0) {
        ops->apply_del(g_udp_vvlan_global, &acl->desc, &record);
        VVLAN_LOG_INFO("unapply phyid(0x%x) %s acl(%d) end.", phyid, kind->name, acl->desc.acl_id);
        return VVLAN_OK;
    }
    if (kind->only_enabled && g_udp_vvlan_glb_cfg.enable == 0) {
        VVLAN_LOG_INFO("voice vlan not enable");
        return VVLAN_OK;
    }
    fp_udp_apply_t *object = ops->apply_alloc(&record);
    if (object == nullptr) {
        VVLAN_LOG_ERROR("Assert:phyid(0x%x) alloc apply get a (NULL) data.", phyid);
        return VVLAN_E_NO_OBJECT;
    }
    ops->apply_set(g_udp_vvlan_global, &acl->desc, acl->desc.acl_kind, object);
    ops->apply_free(object);
    if (kind->only_enabled) {
        /* The object is released; its address only identifies it in the log. */
        VVLAN_LOG_INFO("apply=%p apply phyid(0x%x) %s acl(%d) end.", static_cast<void *>(object), phyid, kind->name,
                       acl->desc.acl_id);
    } else {
        VVLAN_LOG_INFO("apply phyid(0x%x) %s acl(%d) end.", phyid, kind->name, acl->desc.acl_id);
    }
    return VVLAN_OK;
}

int udp_vvlan_apply_cos_acl(vvlan_acl_t *acl, uint32_t phyid, uint32_t apply)
{
    return apply_acl(&vvlan_cos_kind, acl, phyid, apply);
}

int udp_vvlan_apply_mvlan_acl(vvlan_acl_t *acl, uint32_t phyid, uint32_t apply)
{
    return apply_acl(&vvlan_mvlan_kind, acl, phyid, apply);
}

int udp_vvlan_apply_sec_acl(vvlan_acl_t *acl, uint32_t phyid, uint32_t apply)
{
    return apply_acl(&vvlan_sec_kind, acl, phyid, apply);
}

/* ---- Outcomes ---- */

void udp_vvlan_fp_cb_acl_success([[maybe_unused]] void *ignored, const vvlan_acl_desc_t *desc)
{
    VVLAN_LOG_INFO("init acl(id=%d, app_type=%s)  successfully.", desc->acl_id, desc->app_type);
}

void udp_vvlan_fp_cb_acl_failed([[maybe_unused]] void *ignored, const vvlan_acl_desc_t *desc, int err)
{
    VVLAN_LOG_INFO("init acl(id=%d, app_type=%s)  failed. err=%d", desc->acl_id, desc->app_type, err);
}

void udp_vvlan_fp_cb_ace_success([[maybe_unused]] void *ignored, const vvlan_acl_desc_t *desc, uint64_t ace_id)
{
    VVLAN_LOG_INFO("set acl(id=%d, app_type=%s) ace(%llu) successfully.", desc->acl_id, desc->app_type,
                   static_cast<unsigned long long>(ace_id));
}

void udp_vvlan_fp_cb_ace_failed([[maybe_unused]] void *ignored, const vvlan_acl_desc_t *desc, uint64_t ace_id, int err)
{
    VVLAN_LOG_INFO("set acl(id=%d, app_type=%s) ace(%llu) failed. err=%d", desc->acl_id, desc->app_type,
                   static_cast<unsigned long long>(ace_id), err);
}

void udp_vvlan_fp_cb_apply_success([[maybe_unused]] void *ignored, const vvlan_acl_desc_t *desc)
{
    VVLAN_LOG_INFO("set acl(id=%d, app_type=%s) apply successfully.", desc->acl_id, desc->app_type);
}

void udp_vvlan_fp_cb_apply_failed([[maybe_unused]] void *ignored, const vvlan_acl_desc_t *desc,
                                  [[maybe_unused]] void *unused, int err)
{
    VVLAN_LOG_INFO("set acl(id=%d, app_type=%s) apply failed. err=%d", desc->acl_id, desc->app_type, err);
}
