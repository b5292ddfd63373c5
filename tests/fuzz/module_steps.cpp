#include "tests/fuzz/module_steps.h"

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"
#include "tests/fuzz/module_state.h"
#include "tests/fuzz/records.h"
#include "tests/support/recording_platform.h"
#include "u_bridge.pb-c.h"
#include "udp_vvlan.h"
#include "udp_vvlan_age.h"
#include "udp_vvlan_debug.h"
#include "udp_vvlan_ds.h"
#include "udp_vvlan_event.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_handler.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

namespace vvl::test
{
namespace
{

void *context()
{
    return &platform().global;
}

// ---- Entrances for records ----

template <auto decoder, const ProtobufCMessageDescriptor &type> int step_record(ByteReader &in, Records &records)
{
    return decoder(context(), records.record(records.message(type)), in.u8());
}

// Where the decoder gets no tag, but a user argument that it has no use for.
template <auto decoder, const ProtobufCMessageDescriptor &type> int step_untagged(ByteReader &, Records &records)
{
    return decoder(context(), records.record(records.message(type)), nullptr);
}

int step_glb_cfg(ByteReader &in, Records &records)
{
    const uint32_t tag = in.one_of({5, 5, 6, 7, 8, 9, 0});
    return udp_vvlan_event_set_glb_cfg(context(), records.record(records.glb_hash()), tag);
}

int step_mac_noti(ByteReader &in, Records &records)
{
    tq_mom_record_t *record = records.record(records.message(u_bridge__mac_vid_reg_noti__descriptor));
    const uintptr_t scanned_port = in.one_of({0, 0, 0, 1, 2});
    return udp_vvlan_event_set_mac_noti(context(), record, reinterpret_cast<void *>(scanned_port));
}

// A subscription of the start-up, or none, with a record of its type.
int step_sync(ByteReader &in, Records &records)
{
    static constexpr struct {
        const char *key;
        const ProtobufCMessageDescriptor *type; // null: a field
    } subscriptions[] = {{"subscribe p_bridge.vvlan_oui_cfg", &p_bridge__vvlan_oui_cfg__descriptor},
                         {"subscribe p_bridge.vvlan_port_cfg", &p_bridge__vvlan_port_cfg__descriptor},
                         {"subscribe p_bridge.vvlan_glb_cfg/5", nullptr},
                         {"subscribe p_bridge.vvlan_glb_cfg/6", nullptr},
                         {"subscribe p_bridge.vvlan_glb_cfg/7", nullptr},
                         {"subscribe p_bridge.vvlan_glb_cfg/8", nullptr},
                         {"subscribe s_bridge.vvlan_port_noty", &s_bridge__vvlan_port_noty__descriptor}};
    const uint32_t choice = in.below(8);
    if (choice == std::size(subscriptions)) {
        return udp_vvlan_ds_callback(context(), records.record(nullptr), nullptr);
    }
    const auto &[key, type] = subscriptions[choice];
    void *object = type != nullptr ? static_cast<void *>(records.message(*type)) : records.glb_hash();
    return udp_vvlan_ds_callback(context(), records.record(object), platform().subscribers.at(key).user);
}

// ---- Events of the host ----

int step_timer(ByteReader &, Records &)
{
    tq_thread_t thread = {nullptr};
    return udp_vvlan_timer_scan(&thread);
}

// A start-up that fails ends the process by its contract, so none fails here.
int step_link(ByteReader &in, Records &)
{
    platform().faults.clear();
    const uint32_t db = in.one_of({VVLAN_DB_CONFIG, VVLAN_DB_STATUS, VVLAN_DB_ADDRESS, TQ_MOM_UDP_DB});
    return in.flag() ? udp_vvlan_mom_disconnect_callback(context(), db)
                     : udp_vvlan_mom_reconnect_callback(context(), db, static_cast<int32_t>(in.one_of({2, 1})));
}

int step_debug(ByteReader &in, Records &)
{
    static void (*const dumps[])() = {udp_vvlan_show_log_level, udp_vvlan_dump_glb_cfg, udp_vvlan_dump_oui,
                                      udp_vvlan_dump_port,      udp_vvlan_dump_all_mac, udp_vvlan_dump_recover_entry};
    dumps[in.below(std::size(dumps))]();
    udp_vvlan_dump_port_mac(static_cast<int>(in.one_of({1, 2, 64})));
    return 0;
}

constexpr struct Row {
    std::string_view name;
    int (*step)(ByteReader &in, Records &records);
    bool decoder; // -4 and -20 mean: refused, nothing changed
} rows[] = {
    {"oui_cfg", step_record<udp_vvlan_event_set_oui_cfg, p_bridge__vvlan_oui_cfg__descriptor>, true},
    {"glb_cfg", step_glb_cfg, true},
    {"port_cfg", step_record<udp_vvlan_event_set_port_cfg, p_bridge__vvlan_port_cfg__descriptor>, true},
    {"port_noti", step_record<udp_vvlan_event_set_port_noti, s_bridge__vvlan_port_noty__descriptor>, true},
    {"mac_noti", step_mac_noti, true},
    {"mac_subscription", step_untagged<udp_vvlan_mac_subscribe_callback, u_bridge__mac_vid_reg_noti__descriptor>,
     false},
    {"join", step_untagged<udp_vvlan_recover_vvlan_cfg, u_bridge__vvlan_join__descriptor>, true},
    {"sync", step_sync, false},
    {"timer", step_timer, false},
    {"link", step_link, false},
    {"debug", step_debug, false},
};

const Row &find_row(std::string_view name, ByteReader &in)
{
    const auto *row = std::find_if(std::begin(rows), std::end(rows), [&](const Row &r) { return r.name == name; });
    return row != std::end(rows) ? *row : rows[in.below(std::size(rows))];
}

// ---- A run ----

void configure(uint8_t choice)
{
    g_vvlan_zlog_level = (choice & 8) != 0 ? 5 : 0;
    if ((choice & 1) != 0) {
        udp_vvlan_add_vid(100);
        udp_vvlan_mac_subscribe(1);
    }
    for (uint8_t maker = 0; (choice & 2) != 0 && maker < 4; maker++) {
        uint8_t mac[VVLAN_MAC_SIZE] = {0, 0, maker};
        uint8_t mask[VVLAN_MAC_SIZE] = {0xff, 0xff, 0xff};
        require(udp_vvlan_oui_add_node(mac, mask) != nullptr, "an OUI is added");
    }
    for (uint32_t ifx = 1; (choice & 4) != 0 && ifx <= 3; ifx++) {
        const auto port = to_message(p_bridge__vvlan_port_cfg__descriptor,
                                     "{index{ifx:" + std::to_string(ifx) + "} enable:1 mode:1}");
        udp_vvlan_handler_set_port_cfg(1, reinterpret_cast<PBridge__VvlanPortCfg *>(port.get()));
    }
}

// Two ports have no other number; and one call fails, or every one from it on.
void prepare_platform(uint8_t choice)
{
    static UBridge__VvlanJoin join = U_BRIDGE__VVLAN_JOIN__INIT;
    platform().lines.clear();
    platform().logs.clear();
    platform().faults.clear();
    platform().fail("ddm.phyid_of 64", -7);
    platform().fail("ddm.ifx_of 320", -7);
    if (choice >= 0xc0) {
        platform().fail("", TQ_MOM_E_UNREACHABLE, choice & 0x1f, (choice & 0x20) != 0 ? -1 : 1);
    }
    platform().stored = (choice & 1) != 0 ? &join.base : nullptr;
}

} // namespace

void run_module(std::string_view name, std::span<const uint8_t> input)
{
    ByteReader in(input);
    reset_module();
    configure(in.u8());
    while (!in.at_end()) {
        prepare_platform(in.u8());
        Records records(in);
        const std::vector<uint64_t> before = module_values();
        const Row &row = find_row(name, in);
        const int rv = row.step(in, records);
        check_module();
        require(platform().objects_live == 0, "what the plane hands out is given back");
        if (row.decoder && (rv == VVLAN_E_INVALID || rv == VVLAN_E_UNHANDLED)) {
            require(module_values() == before, "a refused record changes no state");
            std::erase_if(platform().lines, [](const std::string &line) { return line.starts_with("ddm."); });
            require(platform().lines.empty(), "a refused record asks neither the store nor the plane for anything");
        }
    }
}

} // namespace vvl::test
