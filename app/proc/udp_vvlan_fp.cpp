/* The module owns three ACLs. The CoS and the MAC-VLAN ACL hold an ACE per OUI,
 * the security ACL a single ACE for the whole voice VLAN. They differ in their
 * names, ids, fields and texts only, so each is a row of a table, and one
 * function sets any of them.
 *
 * ACEs are not kept here: they are built anew from the configuration whenever a
 * value that they carry changes, and an ACE set under its old id replaces the
 * old one in the plane.
 */
#include "udp_vvlan_fp.h"

#include "p_bridge.pb-c.h"
#include "udp_vvlan.h"
#include "udp_vvlan_debug.h"
#include "udp_vvlan_ds.h"
#include "udp_vvlan_err.h"
#include "udp_vvlan_glb_cfg.h"

#include <string.h>

static_assert(sizeof(vvlan_acl_desc_t) == 72, "descriptor layout is the plane's");
static_assert(sizeof(vvlan_apply_t) == 44, "apply record layout is the plane's");
static_assert(sizeof(fp_udp_field_t) == FP_UDP_FIELD_SIZE, "field record size is the plane's");

/* What sets one ACL apart from the others. */
typedef struct vvlan_acl_kind {
    char app_type[FP_UDP_APP_TYPE_SIZE];
    uint32_t acl_id;
    uint32_t apply_opt;
    const char *switch_begin; /* log texts of the ACL's switch: id, add */
    const char *switch_end;
    const char *ace_no_acl;  /* of its ACE builder: code */
    const char *ace_begin;   /* ACE id */
    const char *ace_add_end; /* ACE id */
    const char *ace_del_end; /* ACE id */
} vvlan_acl_kind_t;

static const vvlan_acl_kind_t vvlan_cos_kind = {"vvlan_secu_pas_app",
                                                101,
                                                0,
                                                "set cos acl_id(%d) , add=%d.",
                                                "set cos acl_id(%d) , add=%d",
                                                "Assert:alloc cos acl failed, rv = %d.",
                                                "add cos ace(%d) begin:",
                                                "add cos ace(%d) end.",
                                                "del cos ace(%d) end."};
static const vvlan_acl_kind_t vvlan_mvlan_kind = {"mac_vlan_app",
                                                  102,
                                                  1,
                                                  "set mvlan acl_id(%d), add=%d.",
                                                  "set mvlan acl_id(%d) ,  add=%d.",
                                                  "Assert:aloc mvlan acl failed, rv = %d.",
                                                  "add mvlan ace(%d) begin:",
                                                  "add mvlan ace(%d) end.",
                                                  "del mvlan ace(%d) end."};
static const vvlan_acl_kind_t vvlan_sec_kind = {"vvlan_secu_deny_app",
                                                100,
                                                0,
                                                "set sec acl_id(%d) , add=%d.",
                                                "set sec acl_id(%d) , add=%d.",
                                                "Assert:alloc sec acl failed, rv = %d.",
                                                "add sec ace(%d) begin:",
                                                "add sec ace(%d) end.",
                                                "del sec ace(%d) end."};

/* The order of marking and sweeping. */
static const vvlan_acl_kind_t *const vvlan_kinds[] = {&vvlan_cos_kind, &vvlan_mvlan_kind, &vvlan_sec_kind};

constexpr uint64_t VVLAN_SEC_ACE_ID = 1; /* the only ACE of its ACL */

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

static int set_acl(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl, uint32_t add)
{
    if ((acl->created != 0) == (add != 0)) {
        return VVLAN_OK;
    }
    VVLAN_LOG_INFO(kind->switch_begin, acl->desc.acl_id, add);
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
    VVLAN_LOG_INFO(kind->switch_end, acl->desc.acl_id, add);
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
    int rv = udp_vvlan_set_cos_acl(&g_udp_vvlan_glb_cfg.cos_acl, add);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:udp_vvlan_set_cos_acl failed, rv = %d.", rv);
        return rv;
    }
    rv = udp_vvlan_set_mvlan_acl(&g_udp_vvlan_glb_cfg.mvlan_acl, add);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:udp_vvlan_set_mvlan_acl failed, rv = %d.", rv);
        return rv;
    }
    rv = udp_vvlan_set_sec_acl(&g_udp_vvlan_glb_cfg.sec_acl, add);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:udp_vvlan_set_sec_acl failed, rv = %d.", rv);
    }
    return rv;
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

/* Installs the ACE under its id, with the fields that fill appends. */
static int set_ace(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl, uint64_t id,
                   void (*fill)(fp_udp_ace_t *, const vvlan_oui_t *), const vvlan_oui_t *oui)
{
    VVLAN_LOG_INFO(kind->ace_begin, static_cast<int>(id));
    fp_udp_ace_t *ace = vvlan_fp_mgr->ops->ace_alloc(id, 0);
    if (ace == nullptr) {
        VVLAN_LOG_ERROR("Assert:alloc ace get a (NULL) data.");
        return VVLAN_E_NO_OBJECT;
    }
    fill(ace, oui);
    vvlan_fp_mgr->ops->ace_set(g_udp_vvlan_global, &acl->desc, ace);
    vvlan_fp_mgr->ops->ace_free(ace);
    VVLAN_LOG_INFO(kind->ace_add_end, static_cast<int>(id));
    return VVLAN_OK;
}

static int delete_ace(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl, uint64_t id)
{
    vvlan_fp_mgr->ops->ace_del(g_udp_vvlan_global, &acl->desc, id);
    VVLAN_LOG_INFO(kind->ace_del_end, static_cast<int>(id));
    return VVLAN_OK;
}

/* Sees to it that the ACL exists before an ACE goes into it. */
static int ensure_acl(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl)
{
    const int rv = set_acl(kind, acl, 1);
    if (rv != 0) {
        VVLAN_LOG_ERROR(kind->ace_no_acl, rv);
    }
    return rv;
}

int udp_vvlan_set_cos_ace(vvlan_acl_t *acl, const vvlan_oui_t *oui, uint32_t add)
{
    if (add != 0) {
        const int rv = ensure_acl(&vvlan_cos_kind, acl);
        if (rv != 0) {
            return rv;
        }
    }
    VVLAN_LOG_INFO("%x %x %x ", oui->mac[0], oui->mac[1], oui->mac[2]);
    return add != 0 ? set_ace(&vvlan_cos_kind, acl, oui->ace_id, fill_cos_ace, oui)
                    : delete_ace(&vvlan_cos_kind, acl, oui->ace_id);
}

int udp_vvlan_set_mvlan_ace(vvlan_acl_t *acl, const vvlan_oui_t *oui, uint32_t add)
{
    if (add == 0) {
        return delete_ace(&vvlan_mvlan_kind, acl, oui->ace_id);
    }
    const int rv = ensure_acl(&vvlan_mvlan_kind, acl);
    return rv != 0 ? rv : set_ace(&vvlan_mvlan_kind, acl, oui->ace_id, fill_mvlan_ace, oui);
}

int udp_vvlan_set_sec_ace(vvlan_acl_t *acl, uint32_t add)
{
    if (add == 0) {
        return delete_ace(&vvlan_sec_kind, acl, VVLAN_SEC_ACE_ID);
    }
    const int rv = ensure_acl(&vvlan_sec_kind, acl);
    return rv != 0 ? rv : set_ace(&vvlan_sec_kind, acl, VVLAN_SEC_ACE_ID, fill_sec_ace, nullptr);
}

void udp_vvlan_set_ace(uint32_t add)
{
    int rv = udp_vvlan_set_sec_ace(&g_udp_vvlan_glb_cfg.sec_acl, add);
    rv |= udp_vvlan_oui_set_ace(add);
    if (rv != 0) {
        VVLAN_LOG_WARN("add sec_ace fail !");
        udp_vvlan_handler_err_event(P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_ENABLE, nullptr);
    }
}

/* ---- Bindings ---- */

static vvlan_apply_t make_apply(const vvlan_acl_kind_t *kind, uint32_t phyid)
{
    vvlan_apply_t record = {};
    memcpy(record.app_type, kind->app_type, sizeof record.app_type);
    record.phyid = phyid;
    record.apply_opt = kind->apply_opt;
    return record;
}

/* The apply object, or null where there is none; bound and released already. */
static const void *bind_acl(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl, uint32_t phyid)
{
    const vvlan_apply_t record = make_apply(kind, phyid);
    fp_udp_apply_t *apply = vvlan_fp_mgr->ops->apply_alloc(&record);
    if (apply == nullptr) {
        VVLAN_LOG_ERROR("Assert:phyid(0x%x) alloc apply get a (NULL) data.", phyid);
        return nullptr;
    }
    vvlan_fp_mgr->ops->apply_set(g_udp_vvlan_global, &acl->desc, acl->desc.acl_kind, apply);
    vvlan_fp_mgr->ops->apply_free(apply);
    return apply;
}

static void unbind_acl(const vvlan_acl_kind_t *kind, vvlan_acl_t *acl, uint32_t phyid)
{
    const vvlan_apply_t record = make_apply(kind, phyid);
    vvlan_fp_mgr->ops->apply_del(g_udp_vvlan_global, &acl->desc, &record);
}

int udp_vvlan_apply_cos_acl(vvlan_acl_t *acl, uint32_t phyid, uint32_t apply)
{
    if (apply == 0) {
        unbind_acl(&vvlan_cos_kind, acl, phyid);
        VVLAN_LOG_INFO("unapply phyid(0x%x) cos acl(%d) end.", phyid, acl->desc.acl_id);
    } else if (bind_acl(&vvlan_cos_kind, acl, phyid) != nullptr) {
        VVLAN_LOG_INFO("apply phyid(0x%x) cos acl(%d) end.", phyid, acl->desc.acl_id);
    } else {
        return VVLAN_E_NO_OBJECT;
    }
    return VVLAN_OK;
}

int udp_vvlan_apply_mvlan_acl(vvlan_acl_t *acl, uint32_t phyid, uint32_t apply)
{
    if (apply == 0) {
        unbind_acl(&vvlan_mvlan_kind, acl, phyid);
        VVLAN_LOG_INFO("unapply phyid(0x%x) mvlan acl(%d) end.", phyid, acl->desc.acl_id);
    } else if (bind_acl(&vvlan_mvlan_kind, acl, phyid) != nullptr) {
        VVLAN_LOG_INFO("apply phyid(0x%x) mvlan acl(%d) end.", phyid, acl->desc.acl_id);
    } else {
        return VVLAN_E_NO_OBJECT;
    }
    return VVLAN_OK;
}

int udp_vvlan_apply_sec_acl(vvlan_acl_t *acl, uint32_t phyid, uint32_t apply)
{
    if (apply == 0) {
        unbind_acl(&vvlan_sec_kind, acl, phyid);
        VVLAN_LOG_INFO("unapply phyid(0x%x) sec acl(%d) end.", phyid, acl->desc.acl_id);
        return VVLAN_OK;
    }
    if (g_udp_vvlan_glb_cfg.enable == 0) {
        VVLAN_LOG_INFO("voice vlan not enable");
        return VVLAN_OK;
    }
    const void *object = bind_acl(&vvlan_sec_kind, acl, phyid);
    if (object == nullptr) {
        return VVLAN_E_NO_OBJECT;
    }
    /* The object is released; its address only identifies it in the log. */
    VVLAN_LOG_INFO("apply=%p apply phyid(0x%x) sec acl(%d) end.", object, phyid, acl->desc.acl_id);
    return VVLAN_OK;
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
