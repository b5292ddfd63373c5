// What the module keeps to itself (the ids that it has subscribed and
// registered) is brought to its beginning by the calls that end a subscription.
#include "tests/fuzz/module_state.h"

#include "tests/fuzz/byte_reader.h"
#include "tests/support/recording_platform.h"
#include "udp_vvlan.h"
#include "udp_vvlan_age.h"
#include "udp_vvlan_debug.h"
#include "udp_vvlan_ds.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_handler.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

#include <set>

extern char g_vvlan_level_file[];

namespace vvl::test
{
namespace
{

void start_module()
{
    g_vvlan_level_file[0] = '\0'; // the machine's own is none of ours
    reset_platform();
    tq_global_t *global = &platform().global;
    require(udp_vvlan_global_init(global) == 0 && udp_vvlan_zlog_init() == 0, "the module starts");
    udp_vvlan_rdnd_aware_callback();
    for (uint32_t id : {VVLAN_DB_CONFIG, VVLAN_DB_STATUS, VVLAN_DB_ADDRESS, uint32_t{TQ_MOM_UDP_DB}}) {
        udp_vvlan_mom_connect_callback(global, &id);
    }
}

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

void check_ouis()
{
    std::set<uint32_t> ids;
    for_each_oui([&](const vvlan_oui_t &oui) {
        require(udp_vvlan_oui_find_node(oui.mac, oui.mask) == &oui, "an OUI is in its bucket, once");
        require(oui.ace_id > VVLAN_ACE_ID_NONE && oui.ace_id < VVLAN_ACE_ID_COUNT, "an OUI has an ACE id in range");
        require(ids.insert(oui.ace_id).second, "an OUI's ACE id is its own");
    });
    for (uint32_t id = 0; id < VVLAN_ACE_ID_COUNT; id++) {
        const bool taken = (g_vvlan_ace_id_pool[id / 8] >> id % 8 & 1) != 0;
        require(taken == ids.contains(id), "the ACE ids in use are those of the OUIs");
    }
}

} // namespace

void reset_module()
{
    g_vvlan_zlog_level = 0;
    static const bool started = (start_module(), true);
    require(started, "the module is started once");
    platform().faults.clear();
    tq_mom_record_t withdrawn = {TQ_MOM_WITHDRAWN, nullptr, TQ_MOM_RECORD, 0};
    udp_vvlan_mac_subscribe(0);
    udp_vvlan_mac_subscribe_callback(&platform().global, &withdrawn, nullptr); // of the one just ended
    udp_vvlan_mac_subscribe_callback(&platform().global, &withdrawn, nullptr); // of the one registered
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

std::vector<uint64_t> module_values()
{
    const vvlan_glb_cfg_t &cfg = g_udp_vvlan_glb_cfg;
    std::vector<uint64_t> values = {cfg.vid, cfg.enable, cfg.age_time, cfg.secu_mode, cfg.cos, cfg.dscp};
    auto add = [&](std::initializer_list<uint64_t> more) { values.insert(values.end(), more); };
    auto add_address = [&](const uint8_t(&bytes)[VVLAN_MAC_SIZE]) {
        values.insert(values.end(), std::begin(bytes), std::end(bytes));
    };
    add({cfg.cos_acl.created, cfg.mvlan_acl.created, cfg.sec_acl.created});
    for_each_oui([&](const vvlan_oui_t &oui) {
        add_address(oui.mac);
        add_address(oui.mask);
        add({oui.ace_id});
    });
    for_each_record<vvlan_port_traits>(udp_vvlan_port_list, [&](const vvlan_port_t &port) {
        add({port.ifx, port.phyid, port.vvlan_en, port.auto_mod, port.auto_join, port.deny_en, port.mac_aged,
             port.no_flw});
    });
    for_each_record<vvlan_mac_traits>(udp_vvlan_mac_list, [&](const vvlan_mac_t &record) {
        add_address(record.mac);
        add({record.ifx});
    });
    for_each_record<vvlan_recover_traits>(udp_vvlan_recover_list,
                                          [&](const vvlan_recover_t &entry) { add({entry.ifx}); });
    return values;
}

} // namespace vvl::test
