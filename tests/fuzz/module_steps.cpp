#include "tests/fuzz/module_steps.h"

#include "tests/fuzz/module_state.h"
#include "tests/fuzz/null_platform.h"
#include "udp_vvlan.h"
#include "udp_vvlan_age.h"
#include "udp_vvlan_debug.h"
#include "udp_vvlan_ds.h"
#include "udp_vvlan_event.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_handler.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

namespace vvl::test
{
namespace
{

void *context()
{
    return &null_platform().global;
}

// ---- Entrances for records ----

StepResult step_oui_cfg(ByteReader &in, Records &records)
{
    return {udp_vvlan_event_set_oui_cfg(context(), records.record(records.oui_cfg()), in.u8()), true};
}

StepResult step_glb_cfg(ByteReader &in, Records &records)
{
    const uint32_t tag = in.one_of({5, 5, 6, 7, 8, 9, 0});
    return {udp_vvlan_event_set_glb_cfg(context(), records.record(records.glb_hash()), tag), true};
}

StepResult step_port_cfg(ByteReader &in, Records &records)
{
    return {udp_vvlan_event_set_port_cfg(context(), records.record(records.port_cfg()), in.u8()), true};
}

StepResult step_port_noti(ByteReader &in, Records &records)
{
    return {udp_vvlan_event_set_port_noti(context(), records.record(records.port_noti()), in.u8()), true};
}

void *scanned_port(ByteReader &in)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(in.one_of({0, 0, 0, 1, 2})));
}

StepResult step_mac_noti(ByteReader &in, Records &records)
{
    return {udp_vvlan_event_set_mac_noti(context(), records.record(records.mac_noti()), scanned_port(in)), true};
}

StepResult step_mac_subscription(ByteReader &, Records &records)
{
    return {udp_vvlan_mac_subscribe_callback(context(), records.record(records.mac_noti()), nullptr), false};
}

StepResult step_join(ByteReader &, Records &records)
{
    return {udp_vvlan_recover_vvlan_cfg(context(), records.record(records.join()), nullptr), true};
}

StepResult step_sync(ByteReader &in, Records &records)
{
    const auto &entries = null_platform().entries;
    const uint32_t choice = in.below(8);
    const SyncEntry *entry = choice < 7 ? &entries[choice] : nullptr;
    void *object = entry != nullptr ? records.object_of(entry->type) : nullptr;
    return {udp_vvlan_ds_callback(context(), records.record(object), entry != nullptr ? entry->entry : nullptr), false};
}

// ---- Events of the host ----

StepResult step_timer(ByteReader &, Records &)
{
    tq_thread_t thread = {nullptr};
    return {udp_vvlan_timer_scan(&thread), false};
}

// A start-up that fails ends the process by its contract, so none fails here.
StepResult step_link(ByteReader &in, Records &)
{
    null_platform().fail_in = 0;
    const uint32_t db = in.one_of({VVLAN_DB_CONFIG, VVLAN_DB_STATUS, VVLAN_DB_ADDRESS, TQ_MOM_UDP_DB});
    const int rv = in.flag() ? udp_vvlan_mom_disconnect_callback(context(), db)
                             : udp_vvlan_mom_reconnect_callback(context(), db, static_cast<int32_t>(in.one_of({2, 1})));
    null_platform().entries.resize(7); // a subscription made again has the same entries
    return {rv, false};
}

StepResult step_debug(ByteReader &in, Records &)
{
    static void (*const dumps[])() = {udp_vvlan_show_log_level, udp_vvlan_dump_glb_cfg, udp_vvlan_dump_oui,
                                      udp_vvlan_dump_port,      udp_vvlan_dump_all_mac, udp_vvlan_dump_recover_entry};
    const uint32_t choice = in.below(8);
    if (choice < std::size(dumps)) {
        dumps[choice]();
    } else if (choice == std::size(dumps)) {
        udp_vvlan_dump_port_mac(static_cast<int>(in.one_of({1, 2, 64})));
    } else {
        udp_vvlan_set_zlog_level(static_cast<int>(in.one_of({0, 5})));
    }
    return {};
}

StepResult step_any(ByteReader &in, Records &records);

const struct {
    std::string_view name;
    Step step;
} steps[] = {
    {"oui_cfg", step_oui_cfg},     {"glb_cfg", step_glb_cfg},   {"port_cfg", step_port_cfg},
    {"port_noti", step_port_noti}, {"mac_noti", step_mac_noti}, {"mac_subscription", step_mac_subscription},
    {"join", step_join},           {"sync", step_sync},         {"timer", step_timer},
    {"link", step_link},           {"debug", step_debug},       {"events", step_any}, // any of the rows above
};

StepResult step_any(ByteReader &in, Records &records)
{
    return steps[in.below(std::size(steps) - 1)].step(in, records);
}

// ---- A run ----

void add_ouis()
{
    for (uint8_t maker = 0; maker < 4; maker++) {
        uint8_t mac[VVLAN_MAC_SIZE] = {0, 0, maker};
        uint8_t mask[VVLAN_MAC_SIZE] = {0xff, 0xff, 0xff};
        require(udp_vvlan_oui_add_node(mac, mask) != nullptr, "an OUI is added");
    }
}

void add_ports()
{
    for (uint32_t ifx = 1; ifx <= 3; ifx++) {
        PBridge__VvlanIndex key = P_BRIDGE__VVLAN_INDEX__INIT;
        key.ifx = ifx;
        PBridge__VvlanPortCfg port = P_BRIDGE__VVLAN_PORT_CFG__INIT;
        port.index = &key;
        port.enable = 1;
        port.mode = 1;
        udp_vvlan_handler_set_port_cfg(1, &port);
    }
}

void configure(uint8_t choice)
{
    g_vvlan_zlog_level = (choice & 8) != 0 ? 5 : 0;
    if ((choice & 1) != 0) {
        udp_vvlan_add_vid(100);
        udp_vvlan_mac_subscribe(1);
    }
    if ((choice & 2) != 0) {
        add_ouis();
    }
    if ((choice & 4) != 0) {
        add_ports();
    }
}

void prepare_faults(uint8_t choice)
{
    NullPlatform &platform = null_platform();
    platform.fail_in = choice >= 0xc0 ? (choice & 0x1fu) + 1 : 0;
    platform.fail_on = (choice & 0x20) != 0;
    platform.has_join = (choice & 1) != 0;
}

} // namespace

Step find_step(std::string_view name)
{
    for (const auto &row : steps) {
        if (row.name == name) {
            return row.step;
        }
    }
    return nullptr;
}

void run_module(Step step, std::span<const uint8_t> input)
{
    ByteReader in(input);
    reset_module();
    configure(in.u8());
    while (!in.at_end()) {
        prepare_faults(in.u8());
        Records records(in);
        const uint64_t digest = module_digest();
        const uint64_t calls = null_platform().calls;
        const StepResult result = step(in, records);
        check_module();
        if (result.decoded && (result.rv == VVLAN_E_INVALID || result.rv == VVLAN_E_UNHANDLED)) {
            require(module_digest() == digest, "a refused record changes no state");
            require(null_platform().calls == calls, "a refused record calls nothing");
        }
    }
}

} // namespace vvl::test
