/* The join object of a port is written when it joins and deleted when it
 * leaves, and the table mirrors them. Both are read back before the port
 * configuration arrives, so that a port that was joined before a restart joins
 * again at once and does not wait until its telephone is noticed.
 */
#include "udp_vvlan_recover.h"

#include "u_bridge.pb-c.h"
#include "udp_vvlan_base.h"

VVLAN_HASH_DEFINE(recover, vvlan_recover_traits);

/* ---- Entries ---- */

int udp_vvlan_recover_table_init(void)
{
    return udp_vvlan_recover_list != nullptr ? VVLAN_OK : udp_vvlan_recover_hash_init();
}

vvlan_recover_t *udp_vvlan_get_recover_entry(uint32_t ifx)
{
    const vvlan_recover_t key = {ifx};
    return udp_vvlan_recover_hash_find(&key);
}

vvlan_recover_t *udp_vvlan_add_recover_entry(uint32_t ifx)
{
    const vvlan_recover_t tmpl = {ifx};
    vvlan_recover_t *entry;
    return udp_vvlan_recover_cache_create(&entry, &tmpl);
}

void udp_vvlan_del_recover_entry(uint32_t ifx)
{
    vvlan_recover_t *entry = udp_vvlan_get_recover_entry(ifx);
    if (entry != nullptr) {
        udp_vvlan_recover_cache_destroy(entry);
    }
}

int udp_vvlan_recover_each_item_op(int (*callback)(vvlan_recover_t *, void *), void *arg)
{
    return udp_vvlan_recover_hash_traverse(callback, arg);
}

static int destroy_entry(vvlan_recover_t *entry, [[maybe_unused]] void *arg)
{
    udp_vvlan_recover_cache_destroy(entry);
    return 0;
}

void udp_vvlan_recover_db_clear(void)
{
    udp_vvlan_recover_each_item_op(destroy_entry, nullptr);
    VVLAN_LOG_DEBUG("clear udp_vvlan_recover_db successfully.");
}

/* ---- Object store ---- */

int udp_vvlan_set_vvlan_join(uint32_t join, uint32_t ifx)
{
    UBridge__VvlanIndex key = U_BRIDGE__VVLAN_INDEX__INIT;
    key.ifx = ifx;
    UBridge__VvlanJoin object = U_BRIDGE__VVLAN_JOIN__INIT;
    object.index = &key;
    const int rv = join != 0 ? tq_mom_set(g_udp_vvlan_global, TQ_MOM_UDP_DB, &object.base, nullptr, nullptr)
                             : tq_mom_del(g_udp_vvlan_global, TQ_MOM_UDP_DB, &object.base, nullptr, nullptr);
    if (rv != 0) {
        VVLAN_LOG_WARN("rv = %d", rv);
    }
    return rv;
}

int udp_vvlan_recover_ds_init(void *ctx)
{
    UBridge__VvlanIndex key = U_BRIDGE__VVLAN_INDEX__INIT;
    UBridge__VvlanJoin tmpl = U_BRIDGE__VVLAN_JOIN__INIT;
    tmpl.index = &key;
    const int rv =
        tq_mom_scan_sync(ctx, TQ_MOM_UDP_DB, &tmpl.base, TQ_MOM_MATCH_ALL, udp_vvlan_recover_vvlan_cfg, nullptr);
    if (rv != 0) {
        VVLAN_LOG_ERROR("Assert:<ds> scan vvlan_join failed, rv = %d.", rv);
        return rv;
    }
    VVLAN_LOG_DEBUG("<ds> scan vvlan_join successfully.");
    return VVLAN_OK;
}

int udp_vvlan_recover_vvlan_cfg([[maybe_unused]] void *ctx, tq_mom_record_t *record, [[maybe_unused]] void *user)
{
    if (udp_vvlan_event_check(record) != 0) {
        return VVLAN_E_INVALID;
    }
    const auto *join = static_cast<const UBridge__VvlanJoin *>(record->object);
    if (join == nullptr || join->index == nullptr) {
        VVLAN_LOG_ERROR("Assert:msg vvlan_join param failed.");
        /* A record without an object may be a scan's last; one without its key is malformed. */
        return join == nullptr ? VVLAN_OK : VVLAN_E_INVALID;
    }
    switch (record->operate) {
    case TQ_MOM_SET:
        if (udp_vvlan_add_recover_entry(join->index->ifx) == nullptr) {
            VVLAN_LOG_ERROR("Assert:add recover_entry failed");
            return VVLAN_E_RECOVER;
        }
        return VVLAN_OK;
    case TQ_MOM_DEL:
        udp_vvlan_del_recover_entry(join->index->ifx);
        return VVLAN_OK;
    default:
        return VVLAN_E_UNHANDLED;
    }
}
