// The store's part in the start-up: each subscription is established, each
// cycle opened, each scan answered with all objects of its type and an end, in
// the order of the requests. A scan for the addresses of one port delivers
// those of all ports, as a store does, since the request names the VLAN alone.
#include "bench/module_driver.h"

#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <utility>

namespace vvl::bench
{
namespace
{

constexpr const char *mac_type = "u_bridge.mac_vid_reg_noti";
constexpr const char *oui_type = "p_bridge.vvlan_oui_cfg";
constexpr const char *port_type = "p_bridge.vvlan_port_cfg";
constexpr const char *noty_type = "s_bridge.vvlan_port_noty";
constexpr const char *configuration_type = "p_bridge.vvlan_glb_cfg";
constexpr size_t requests_beside_ports = 64; // those of a start-up without ports

PLibpub__Mac make_mac(MacBytes &bytes)
{
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
    mac.data = {bytes.size(), bytes.data()};
    return mac;
}

} // namespace

ModuleDriver::ModuleDriver(Configuration configuration)
    : configuration_(std::move(configuration)), library_(dlopen(VVLAN_MODULE, RTLD_NOW | RTLD_LOCAL))
{
    if (library_ == nullptr) {
        std::fprintf(stderr, "bench: the module cannot be loaded: %s\n", dlerror());
        std::exit(2);
    }
    reset_null_platform(configuration_.port_count + requests_beside_ports);
    mac_table_size_ = reinterpret_cast<uint32_t (*)()>(find_symbol("udp_vvlan_mac_hash_size"));
    mac_ = make_mac(mac_bytes_);
    mac_index_ = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
    mac_index_.t_fid = voice_vid;
    mac_index_.t_mac = &mac_;
    mac_noti_ = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    mac_noti_.index = &mac_index_;
    noty_index_ = S_BRIDGE__VVLAN_INDEX__INIT;
    noty_ = S_BRIDGE__VVLAN_PORT_NOTY__INIT;
    noty_.index = &noty_index_;
}

ModuleDriver::~ModuleDriver()
{
    dlclose(library_);
}

void *ModuleDriver::find_symbol(const char *name)
{
    void *symbol = dlsym(library_, name);
    if (symbol == nullptr) {
        std::fprintf(stderr, "bench: the module has no %s\n", name);
        std::exit(2);
    }
    return symbol;
}

void ModuleDriver::start()
{
    NullPlatform &platform = null_platform();
    reinterpret_cast<int (*)(void *)>(find_symbol("udp_vvlan_global_init"))(&platform.global);
    reinterpret_cast<int (*)(...)>(find_symbol("udp_vvlan_rdnd_aware_callback"))(0);
    for (void *user : platform.connect_users) {
        platform.connect(&platform.global, user);
    }
    answer_requests();
}

void ModuleDriver::answer_requests()
{
    // An answer may make further requests; they are appended.
    std::vector<Request> &requests = null_platform().requests;
    for (size_t i = 0; i < requests.size(); i++) {
        answer(Request(requests[i]));
    }
    requests.clear();
}

int ModuleDriver::Subscriber::deliver(int32_t operate, void *object, int32_t phase) const
{
    tq_mom_record_t record = {operate, object, phase, 0};
    return callback(&null_platform().global, &record, user);
}

void ModuleDriver::answer(const Request &request)
{
    const Subscriber from = {request.callback, request.user};
    switch (request.kind) {
    case Request::Kind::subscription:
        remember(request);
        from.deliver(TQ_MOM_ESTABLISHED, nullptr);
        break;
    case Request::Kind::cycle:
        from.deliver(TQ_MOM_SET, nullptr, TQ_MOM_CYCLE_OPEN);
        break;
    case Request::Kind::cycle_end:
        from.deliver(TQ_MOM_SET, nullptr, TQ_MOM_NOTHING);
        break;
    case Request::Kind::scan:
        answer_scan(request);
        from.deliver(TQ_MOM_SET, nullptr, TQ_MOM_SCAN_OVER);
        break;
    }
}

void ModuleDriver::remember(const Request &request)
{
    const std::pair<const char *, Subscriber &> all[] = {
        {mac_type, macs_}, {oui_type, ouis_}, {port_type, ports_}, {noty_type, noties_}};
    for (const auto &[type, subscriber] : all) {
        if (request.type == type) {
            subscriber = {request.callback, request.user};
        }
    }
}

void ModuleDriver::answer_scan(const Request &request)
{
    if (request.type == oui_type) {
        for (const Oui &oui : configuration_.ouis) {
            add_oui(oui);
        }
    } else if (request.type == port_type) {
        for (uint32_t ifx = 1; ifx <= configuration_.port_count; ifx++) {
            set_port(ifx);
        }
    } else if (request.type == mac_type) {
        // The scan's own callback and argument: it may want one port's alone.
        const Subscriber subscriber = std::exchange(macs_, Subscriber{request.callback, request.user});
        for (const LearnedMac &learned : configuration_.macs) {
            learn(learned.mac, learned.ifx);
        }
        macs_ = subscriber;
    } else if (request.type == configuration_type) {
        PBridge__VvlanEn voice_vlan = P_BRIDGE__VVLAN_EN__INIT;
        voice_vlan.vlan = voice_vid;
        voice_vlan.enable = 1;
        PBridge__VvlanGlbCfg message = P_BRIDGE__VVLAN_GLB_CFG__INIT;
        message.glb_switch = &voice_vlan;
        uint32_t fields[] = {5}; // glb_switch
        tq_mom_hash_t hash = {&message.base, fields, 1, 0};
        Subscriber{request.callback, request.user}.deliver(TQ_MOM_HSET, &hash);
    }
}

void ModuleDriver::deliver_mac(int32_t operate, const MacBytes &mac, uint32_t ifx)
{
    mac_bytes_ = mac;
    mac_noti_.port_id = ifx;
    macs_.deliver(operate, &mac_noti_);
}

void ModuleDriver::deliver_oui(int32_t operate, const Oui &oui)
{
    MacBytes bytes[] = {oui.mac, oui.mask};
    PLibpub__Mac mac = make_mac(bytes[0]);
    PLibpub__Mac mask = make_mac(bytes[1]);
    PBridge__BOui index = P_BRIDGE__B_OUI__INIT;
    index.mac = &mac;
    index.mask = &mask;
    PBridge__VvlanOuiCfg message = P_BRIDGE__VVLAN_OUI_CFG__INIT;
    message.index = &index;
    ouis_.deliver(operate, &message);
}

void ModuleDriver::set_port(uint32_t ifx)
{
    PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
    index.ifx = ifx;
    PBridge__VvlanPortCfg message = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    message.index = &index;
    message.enable = 1;
    message.mode = 1;
    ports_.deliver(TQ_MOM_SET, &message);
}

void ModuleDriver::report_voice(uint32_t ifx)
{
    noty_index_.phyid = ifx;
    noties_.deliver(TQ_MOM_PUBLISH, &noty_);
}

void ModuleDriver::run_aging_timer()
{
    tq_thread_t thread = {};
    null_platform().timer(&thread);
}

} // namespace vvl::bench
