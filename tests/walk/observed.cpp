// The store client of the walk, and the reading of module, store and plane.
#include "tests/walk/observed.h"

#include "p_bridge.pb-c.h"
#include "platform/mom/client.h"
#include "platform/mom/keys.h"
#include "platform/mom/store_local.h"
#include "s_bridge.pb-c.h"
#include "tests/walk/module_symbols.h"
#include "u_bridge.pb-c.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

namespace vvl::walk
{
namespace
{

struct OwnType {
    uint32_t db;
    const char *name;
};

const OwnType own_types[own_count] = {
    // by Own
    {db_config, "p_bridge.vvlan_port_auto"},
    {db_own, "u_bridge.vvlan_join"},
    {db_own, "u_bridge.vvlan_port_cfg"},
    {db_own, "u_bridge.vvlan_oui_cfg"},
};

// A message's MAC field. The bytes are the caller's.
class MacMessage
{
  public:
    explicit MacMessage(const MacField &field) : present_(field)
    {
        if (field) {
            bytes_.assign(field->begin(), field->end());
            message_.data = {bytes_.size(), bytes_.data()};
        }
    }
    MacMessage(const MacMessage &) = delete;
    MacMessage &operator=(const MacMessage &) = delete;
    PLibpub__Mac *get() { return present_ ? &message_ : nullptr; }

  private:
    bool present_;
    std::vector<uint8_t> bytes_;
    PLibpub__Mac message_ = P_LIBPUB__MAC__INIT;
};

// A stored message of a known type.
template <typename Message> struct Unpacked {
    explicit Unpacked(const char *type, const std::string &bytes) : held(mom::unpack(*mom::find_type(type), bytes)) {}
    const Message *operator->() const { return reinterpret_cast<const Message *>(held.get()); }
    mom::MessagePtr held;
};

Mac to_mac(const PLibpub__Mac *message)
{
    Mac mac{};
    if (message != nullptr && message->data.len == mac.size()) {
        std::memcpy(mac.data(), message->data.data, mac.size());
    }
    return mac;
}

// The walk's own writes cannot fail; one that does makes the run worthless.
void expect_done(int result)
{
    if (result != 0) {
        fprintf(stderr, "the store refused a write of the walk (%d)\n", result);
        abort();
    }
}

// Calls use with the object as a message.
template <typename Use> void with_global(const GlobalObject &object, Use use)
{
    PBridge__VvlanEn glb_switch = P_BRIDGE__VVLAN_EN__INIT;
    PBridge__BQos qos = P_BRIDGE__B_QOS__INIT;
    PBridge__VvlanGlbCfg message = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    if (object.glb_switch) {
        glb_switch.vlan = object.glb_switch->vlan;
        glb_switch.enable = object.glb_switch->enable;
        message.glb_switch = &glb_switch;
    }
    if (object.qos) {
        qos.cos = object.qos->cos;
        qos.dscp = object.qos->dscp;
        message.qos = &qos;
    }
    message.secu_mode = object.secu_mode;
    message.age_time = object.age_time;
    use(message);
}

template <typename Use> void with_port_noti(uint32_t phyid, Use use)
{
    SBridge__VvlanIndex index = S_BRIDGE__VVLAN_INDEX__INIT;
    SBridge__VvlanPortNoty message = S_BRIDGE__VVLAN_PORT_NOTY__INIT;
    index.phyid = phyid;
    message.index = &index;
    use(message.base);
}

template <typename Use> void with_noti(const NotiObject &noti, Use use)
{
    MacMessage mac(noti.mac);
    UBridge__UdpL2addrBaseIndex index = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
    UBridge__MacVidRegNoti message = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    index.t_fid = noti.vlan;
    index.t_type = noti.type;
    index.t_mac = mac.get();
    message.index = &index;
    message.port_id = noti.port;
    use(message.base);
}

} // namespace

Observed::Observed(std::vector<host::PortId> ports)
    : ports_(std::move(ports)), store_(mom::make_local_store()), plane_(loop_), manager_(plane_, loop_),
      agent_(loop_, *store_, manager_, ports_, host::default_module_path()), reader_(store_->open(loop_, *this, "walk"))
{
    expect_done(mom::attach(&client_, *store_, loop_, "walk"));
    for (const uint32_t db : databases) {
        expect_done(tq_mom_client_connect_sync(&client_, db));
        expect_done(reader_->connect_now(db));
    }
}

Observed::~Observed()
{
    agent_.unload();
    mom::detach(&client_);
}

// ---- Events ----

void Observed::set_global_fields(const GlobalObject &object)
{
    const std::vector<uint32_t> fields(object.fields.begin(), object.fields.end());
    with_global(object, [&](const PBridge__VvlanGlbCfg &message) {
        expect_done(
            mom::set_fields(&client_, db_config, &message.base, fields.data(), static_cast<uint32_t>(fields.size())));
    });
}

void Observed::set_global(const GlobalObject &object)
{
    with_global(object, [&](const PBridge__VvlanGlbCfg &message) {
        expect_done(tq_mom_set(&client_, db_config, &message.base, nullptr, nullptr));
    });
}

void Observed::delete_global()
{
    with_global({}, [&](const PBridge__VvlanGlbCfg &message) {
        expect_done(tq_mom_del(&client_, db_config, &message.base, nullptr, nullptr));
    });
}

void Observed::write_oui(const OuiObject &oui, bool present)
{
    MacMessage mac(oui.mac);
    MacMessage mask(oui.mask);
    PBridge__BOui index = P_BRIDGE__B_OUI__INIT;
    PBridge__VvlanOuiCfg message = P_BRIDGE__VVLAN_OUI_CFG__INIT;
    index.mac = mac.get();
    index.mask = mask.get();
    message.index = &index;
    expect_done(present ? tq_mom_set(&client_, db_config, &message.base, nullptr, nullptr)
                        : tq_mom_del(&client_, db_config, &message.base, nullptr, nullptr));
}

void Observed::write_port(const PortObject &port, bool present)
{
    PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
    PBridge__VvlanPortCfg message = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    index.ifx = port.ifx;
    message.index = &index;
    message.enable = port.enable;
    message.mode = port.mode;
    expect_done(present ? tq_mom_set(&client_, db_config, &message.base, nullptr, nullptr)
                        : tq_mom_del(&client_, db_config, &message.base, nullptr, nullptr));
}

void Observed::set_port_noti(uint32_t phyid)
{
    with_port_noti(phyid, [&](const ProtobufCMessage &message) {
        expect_done(tq_mom_set(&client_, db_status, &message, nullptr, nullptr));
    });
}

void Observed::publish_port_noti(uint32_t phyid)
{
    with_port_noti(phyid,
                   [&](const ProtobufCMessage &message) { expect_done(mom::publish(&client_, db_status, &message)); });
}

void Observed::delete_port_noti(uint32_t phyid)
{
    with_port_noti(phyid, [&](const ProtobufCMessage &message) {
        expect_done(tq_mom_del(&client_, db_status, &message, nullptr, nullptr));
    });
}

void Observed::set_mac(const NotiObject &noti)
{
    with_noti(noti, [&](const ProtobufCMessage &message) {
        expect_done(tq_mom_set(&client_, db_address, &message, nullptr, nullptr));
    });
}

void Observed::delete_mac(const NotiObject &noti)
{
    with_noti(noti, [&](const ProtobufCMessage &message) {
        expect_done(tq_mom_del(&client_, db_address, &message, nullptr, nullptr));
    });
}

void Observed::publish_mac(const NotiObject &noti)
{
    with_noti(noti,
              [&](const ProtobufCMessage &message) { expect_done(mom::publish(&client_, db_address, &message)); });
}

void Observed::write_own(Own type, uint32_t key, bool present)
{
    const OwnType &row = own_types[static_cast<size_t>(type)];
    const mom::MessagePtr message = mom::decode_key(*mom::find_type(row.name), std::to_string(key));
    expect_done(present ? tq_mom_set(&client_, row.db, message.get(), nullptr, nullptr)
                        : tq_mom_del(&client_, row.db, message.get(), nullptr, nullptr));
}

bool Observed::start()
{
    std::string why;
    if (!agent_.load(why)) {
        fprintf(stderr, "%s\n", why.c_str());
        return false;
    }
    module_ = std::make_unique<ModuleSymbols>();
    if (!module_->find(host::default_module_path())) {
        return false;
    }
    *module_->log_level = 0; // formatting lines that nobody reads would be most of the run
    return true;
}

void Observed::stop()
{
    module_.reset();
    agent_.unload();
}

void Observed::set_link(uint32_t db, bool up)
{
    std::string why;
    if (!agent_.set_store_link(db, up, why)) {
        fprintf(stderr, "%s\n", why.c_str());
        abort();
    }
}

// ---- Printing ----

void Observed::print(Page &page)
{
    page.line("loaded").number(module_ != nullptr);
    if (module_ != nullptr) {
        print_module(page);
    }
    print_store(page);
    print_plane(page);
}

void Observed::print_module(Page &page) const
{
    const vvlan_glb_cfg_t &global = *module_->global;
    page.line("global").number(global.vid).number(global.enable).number(global.age_time).number(global.secu_mode);
    page.number(global.cos).number(global.dscp);
    page.number(global.cos_acl.created).number(global.mvlan_acl.created).number(global.sec_acl.created);
    page.line("over");
    for (const uint8_t *flag : module_->over) {
        page.number(*flag);
    }
    print_ouis(page);
    const auto print_port = [](vvlan_port_t *port, void *arg) {
        Page &to = *static_cast<Page *>(arg);
        to.line("port").number(port->ifx).number(port->phyid).number(port->vvlan_en).number(port->auto_mod);
        to.number(port->auto_join).number(port->deny_en).number(port->mac_aged).number(port->no_flw);
        for (vvlan_list_t *link = port->mac_list.next; link != &port->mac_list; link = link->next) {
            const auto *mac = VVLAN_LIST_ENTRY(link, vvlan_mac_t, link);
            to.mac(mac->mac);
            if (mac->ifx != port->ifx) {
                to.word("of port").number(mac->ifx);
            }
        }
        return 0;
    };
    module_->walk_ports(print_port, &page);
    page.line("macs").number(module_->mac_count());
    std::set<uint32_t> recovery;
    const auto collect = [](vvlan_recover_t *entry, void *arg) {
        static_cast<std::set<uint32_t> *>(arg)->insert(entry->ifx);
        return 0;
    };
    module_->walk_recovery(collect, &recovery);
    for (const uint32_t ifx : recovery) {
        page.line("recovery").number(ifx);
    }
}

void Observed::print_ouis(Page &page) const
{
    std::set<uint32_t> ids;
    for (uint32_t bucket = 0; bucket < VVLAN_OUI_BUCKET_COUNT; bucket++) {
        const vvlan_list_t &head = module_->oui_buckets[bucket];
        for (vvlan_list_t *link = head.next; link != nullptr && link != &head; link = link->next) {
            const auto *oui = VVLAN_LIST_ENTRY(link, vvlan_oui_t, link);
            page.line("oui").number(bucket).mac(oui->mac).mac(oui->mask);
            page.number(oui->ace_id);
            ids.insert(oui->ace_id);
        }
    }
    for (uint32_t id = 0; id < VVLAN_ACE_ID_COUNT; id++) {
        if (((module_->ace_ids[id / 8] >> id % 8 & 1) != 0) != ids.contains(id)) {
            page.line("pool differs from OUIs in id").number(id);
        }
    }
}

std::vector<mom::Object> Observed::list(uint32_t db, const char *type)
{
    std::vector<mom::Object> objects;
    expect_done(reader_->scan_now(db, type, objects));
    return objects;
}

void Observed::print_store(Page &page)
{
    for (size_t type = 0; type < own_count; type++) {
        print_own(page, static_cast<Own>(type));
    }
    for (const mom::Object &object : list(db_address, "u_bridge.mac_vid_reg")) {
        page.line("registration").word(object.key);
    }
    std::string error;
    for (const mom::Object &object : list(db_config, "p_bridge.vvlan_err_event")) {
        std::string bytes;
        mom::join_fields(object.value.fields, bytes);
        const Unpacked<PBridge__VvlanErrEvent> event("p_bridge.vvlan_err_event", bytes);
        error = event->oui != nullptr ? oui_error_text(to_mac(event->oui->mac), to_mac(event->oui->mask))
                                      : port_error_text(event->ifx);
        if (event->msg_type != (event->oui != nullptr ? 2 : 1) || event->vid != 0 || event->qos != nullptr) {
            error += " and other fields";
        }
    }
    page.line("error_event").word(error);
    page.line("packet_library").number(list(db_status, "s_cluster.reg_pkt_info").size());
}

void Observed::print_own(Page &page, Own type)
{
    const OwnType &row = own_types[static_cast<size_t>(type)];
    for (const mom::Object &object : list(row.db, row.name)) {
        page.line(own_words[static_cast<size_t>(type)]).word(object.key);
        std::string value;
        if (type == Own::port_auto) {
            value = port_auto_text(Unpacked<PBridge__VvlanPortAuto>(row.name, object.value.bytes)->enable);
        } else if (type == Own::oui) {
            const Unpacked<UBridge__VvlanOuiCfg> record(row.name, object.value.bytes);
            if (record->oui != nullptr) {
                value = oui_text(to_mac(record->oui->mac), to_mac(record->oui->mask));
            }
        }
        page.word(value);
    }
}

void Observed::print_plane(Page &page) const
{
    const fp::PlaneState &state = manager_.desired();
    for (size_t acl = 0; acl < fp::acl_count; acl++) {
        for (const fp::Rule &rule : state.rules[acl]) {
            print_rule(page, acl, rule);
        }
    }
    for (const auto &[phyid, acls] : state.binding) {
        print_binding(page, phyid, acls);
    }
}

} // namespace vvl::walk
