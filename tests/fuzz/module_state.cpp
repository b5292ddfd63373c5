// What the module keeps to itself (the ids that it has subscribed and
// registered) is brought to its beginning by the calls that end a subscription.
#include "tests/fuzz/module_state.h"

#include "tests/fuzz/byte_reader.h"
#include "tests/fuzz/null_platform.h"
#include "udp_vvlan.h"
#include "udp_vvlan_age.h"
#include "udp_vvlan_debug.h"
#include "udp_vvlan_ds.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

#include <set>
#include <vector>

extern char g_vvlan_level_file[];

namespace vvl::test
{
namespace
{

void start_module()
{
    g_vvlan_level_file[0] = '\0'; // the machine's own is none of ours
    NullPlatform &platform = null_platform();
    platform.global = {nullptr, reinterpret_cast<tq_thread_master *>(&platform)};
    require(udp_vvlan_global_init(&platform.global) == 0 && udp_vvlan_zlog_init() == 0, "the module starts");
    udp_vvlan_rdnd_aware_callback();
    for (uint32_t id : {VVLAN_DB_CONFIG, VVLAN_DB_STATUS, VVLAN_DB_ADDRESS, uint32_t{TQ_MOM_UDP_DB}}) {
        udp_vvlan_mom_connect_callback(&platform.global, &id);
    }
    require(platform.entries.size() == 7, "the module subscribes when all databases are connected");
}

void end_subscription()
{
    tq_mom_record_t withdrawn = {TQ_MOM_WITHDRAWN, nullptr, TQ_MOM_RECORD, 0};
    udp_vvlan_mac_subscribe(0);
    udp_vvlan_mac_subscribe_callback(&null_platform().global, &withdrawn, nullptr); // of the one just ended
    udp_vvlan_mac_subscribe_callback(&null_platform().global, &withdrawn, nullptr); // of the one registered
}

class Digest
{
  public:
    void add(uint64_t value) { value_ = (value_ ^ value) * 0x100000001b3; } // FNV-1a, by words
    void add(const uint8_t *bytes, size_t size)
    {
        for (size_t i = 0; i < size; i++) {
            add(bytes[i]);
        }
    }
    uint64_t value() const { return value_; }

  private:
    uint64_t value_ = 0xcbf29ce484222325;
};

template <typename Visit> void for_each_oui(Visit visit)
{
    for (vvlan_list_t &head : g_udp_vvlan_oui) {
        for (vvlan_list_t *link = head.next; link != &head; link = link->next) {
            require(link->next->prev == link && link->prev->next == link, "an OUI list is linked both ways");
            visit(*VVLAN_LIST_ENTRY(link, vvlan_oui_t, link));
        }
    }
}

template <typename Traits, typename Visit> void for_each_record(const vvlan_hash_t *table, Visit visit)
{
    for (uint32_t bucket = 0; bucket < table->n_buckets; bucket++) {
        if (udp_vvlan_hash_flag(table->flags, bucket) == 0) {
            visit(*static_cast<typename Traits::record *>(table->keys[bucket]));
        }
    }
}

template <typename Traits> void check_table(const vvlan_hash_t *table)
{
    using ops = vvlan_hash_ops<Traits>;
    uint32_t live = 0;
    uint32_t deleted = 0;
    for (uint32_t bucket = 0; bucket < table->n_buckets; bucket++) {
        const uint32_t flag = udp_vvlan_hash_flag(table->flags, bucket);
        const uint8_t tag = udp_vvlan_hash_tags(table->flags, table->n_buckets)[bucket];
        require((flag == 0) == (tag != 0), "a bucket has a tag where it is live");
        live += flag == 0;
        deleted += flag == VVLAN_HASH_DELETED;
    }
    require(table->size == live, "a table's size is the number of its live buckets");
    require(table->n_occupied == live + deleted, "a table's occupied buckets are the live and the deleted ones");
    require(table->n_occupied <= table->upper_bound, "a table is not fuller than its bound");
    for_each_record<Traits>(table, [&](const auto &record) {
        require(ops::find(table, &record) == &record, "a record is found by its key, once");
    });
}

void check_addresses()
{
    uint32_t listed = 0;
    for_each_record<vvlan_port_traits>(udp_vvlan_port_list, [&](vvlan_port_t &port) {
        for (vvlan_list_t *link = port.mac_list.next; link != &port.mac_list; link = link->next) {
            require(link->next->prev == link && link->prev->next == link, "an address list is linked both ways");
            const auto *record = VVLAN_LIST_ENTRY(link, vvlan_mac_t, link);
            require(udp_vvlan_mac_get(record->mac) == record, "a listed address is in the table");
            require(record->ifx == port.ifx, "an address is in the list of its port");
            listed++;
        }
    });
    require(listed == udp_vvlan_mac_hash_size(), "every address is in one list");
}

bool has_learnable_prefix(const vvlan_oui_t &oui)
{
    bool ended = false;
    for (uint32_t bit = 0; bit < 8 * VVLAN_MAC_SIZE; bit++) {
        const bool masked = (oui.mask[bit / 8] & 0x80 >> bit % 8) != 0;
        const bool set = (oui.mac[bit / 8] & 0x80 >> bit % 8) != 0;
        if ((masked && ended) || (set && !masked)) {
            return false;
        }
        ended = !masked;
    }
    return oui.mask[0] >= 0x80;
}

void check_ouis()
{
    std::set<uint32_t> ids;
    for_each_oui([&](const vvlan_oui_t &oui) {
        require(udp_vvlan_oui_find_node(oui.mac, oui.mask) == &oui, "an OUI is in its bucket, once");
        require(oui.ace_id > VVLAN_ACE_ID_NONE && oui.ace_id < VVLAN_ACE_ID_COUNT, "an OUI has an ACE id in range");
        require(ids.insert(oui.ace_id).second, "an OUI's ACE id is its own");
        require(!has_learnable_prefix(oui) || udp_vvlan_oui_find_mac(oui.mac) != nullptr,
                "an address is matched by the OUI that covers it");
    });
    for (uint32_t id = 0; id < VVLAN_ACE_ID_COUNT; id++) {
        const bool taken = (g_vvlan_ace_id_pool[id / 8] >> id % 8 & 1) != 0;
        require(taken == ids.contains(id), "the ACE ids in use are those of the OUIs");
    }
}

} // namespace

void reset_module()
{
    static bool started = false;
    NullPlatform &platform = null_platform();
    platform.fail_in = 0;
    platform.fail_on = false;
    platform.has_join = false;
    g_vvlan_zlog_level = 0;
    if (!started) {
        start_module();
        started = true;
    }
    end_subscription();
    udp_vvlan_oui_release();
    udp_vvlan_mac_release();
    udp_vvlan_port_release();
    udp_vvlan_recover_release();
    g_udp_vvlan_glb_cfg = {};
    std::fill(std::begin(g_vvlan_ace_id_pool), std::end(g_vvlan_ace_id_pool), uint8_t{0});
    oui_cfg_scan_over = port_cfg_scan_over = glb_cfg_scan_over = port_noti_scan_over = 0;
    require(udp_vvlan_glb_cfg_init() == 0, "the module's tables are made");
}

void check_module()
{
    check_table<vvlan_port_traits>(udp_vvlan_port_list);
    check_table<vvlan_mac_traits>(udp_vvlan_mac_list);
    check_table<vvlan_recover_traits>(udp_vvlan_recover_list);
    check_addresses();
    check_ouis();
    const vvlan_glb_cfg_t &cfg = g_udp_vvlan_glb_cfg;
    require(cfg.enable == 0 || cfg.vid != 0, "a voice VLAN that is on has an id");
}

uint64_t module_digest()
{
    const vvlan_glb_cfg_t &cfg = g_udp_vvlan_glb_cfg;
    Digest digest;
    for (const uint32_t value : {cfg.vid, uint32_t{cfg.enable}, uint32_t{cfg.age_time}, uint32_t{cfg.secu_mode},
                                 uint32_t{cfg.cos}, uint32_t{cfg.dscp}, uint32_t{cfg.cos_acl.created},
                                 uint32_t{cfg.mvlan_acl.created}, uint32_t{cfg.sec_acl.created}}) {
        digest.add(value);
    }
    for_each_oui([&](const vvlan_oui_t &oui) {
        digest.add(oui.mac, sizeof oui.mac);
        digest.add(oui.mask, sizeof oui.mask);
        digest.add(oui.ace_id);
    });
    for_each_record<vvlan_port_traits>(udp_vvlan_port_list, [&](const vvlan_port_t &port) {
        for (const uint32_t value :
             {port.ifx, port.phyid, uint32_t{port.vvlan_en}, uint32_t{port.auto_mod}, uint32_t{port.auto_join},
              uint32_t{port.deny_en}, uint32_t{port.mac_aged}, port.no_flw}) {
            digest.add(value);
        }
    });
    for_each_record<vvlan_mac_traits>(udp_vvlan_mac_list, [&](const vvlan_mac_t &record) {
        digest.add(record.mac, sizeof record.mac);
        digest.add(record.ifx);
    });
    for_each_record<vvlan_recover_traits>(udp_vvlan_recover_list,
                                          [&](const vvlan_recover_t &entry) { digest.add(entry.ifx); });
    return digest.value();
}

} // namespace vvl::test
