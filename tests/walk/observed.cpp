// The store client of the walk, and the reading of module, store and plane.
#include "tests/walk/observed.h"

#include "p_bridge.pb-c.h"
#include "platform/mom/client.h"
#include "platform/mom/keys.h"
#include "platform/mom/local/store_local.h"
#include "tests/walk/model.h"
#include "u_bridge.pb-c.h"
#include "udp_vvlan_fp.h"
#include "udp_vvlan_glb_cfg.h"
#include "udp_vvlan_mac.h"
#include "udp_vvlan_oui.h"
#include "udp_vvlan_port.h"
#include "udp_vvlan_recover.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <set>

namespace vvl::walk
{

namespace
{

// An exported symbol of the module, looked up after each load. It holds no
// reference to the library, which has to be able to go.
struct Symbol {
    const char *name;
    template <typename Type> operator Type *() const
    {
        void *library = dlopen(host::default_module_path().c_str(), RTLD_NOW | RTLD_NOLOAD);
        void *symbol = library != nullptr ? dlsym(library, name) : nullptr;
        if (symbol == nullptr) {
            fprintf(stderr, "the module has no symbol %s\n", name);
            exit(2);
        }
        dlclose(library);
        return reinterpret_cast<Type *>(symbol);
    }
};

} // namespace

struct Observed::Module {
    const vvlan_glb_cfg_t *global = Symbol{"g_udp_vvlan_glb_cfg"};
    const vvlan_list_t *oui_buckets = Symbol{"g_udp_vvlan_oui"};
    const uint8_t *ace_ids = Symbol{"g_vvlan_ace_id_pool"};
    const uint8_t *over[4] = {Symbol{"oui_cfg_scan_over"}, Symbol{"port_cfg_scan_over"}, Symbol{"glb_cfg_scan_over"},
                              Symbol{"port_noti_scan_over"}};
    uint32_t *log_level = Symbol{"g_vvlan_zlog_level"};
    int (*walk_ports)(int (*)(vvlan_port_t *, void *), void *) = Symbol{"udp_vvlan_port_hash_traverse"};
    uint32_t (*mac_count)() = Symbol{"udp_vvlan_mac_hash_size"};
    int (*walk_recovery)(int (*)(vvlan_recover_t *, void *), void *) = Symbol{"udp_vvlan_recover_hash_traverse"};
};

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

std::string own_value(Own type, const char *name, const std::string &bytes)
{
    if (type == Own::port_auto) {
        return std::to_string(Unpacked<PBridge__VvlanPortAuto>(name, bytes)->enable);
    }
    if (type == Own::oui) {
        const Unpacked<UBridge__VvlanOuiCfg> record(name, bytes);
        return record->oui != nullptr ? oui_text(to_mac(record->oui->mac), to_mac(record->oui->mask)) : "";
    }
    return "";
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

void Observed::set_global(const GlobalObject &object)
{
    const mom::MessagePtr message = mom::make_message(*mom::find_type("p_bridge.vvlan_glb_cfg")->descriptor);
    std::vector<uint32_t> numbers;
    for (const auto &[number, value] : object) {
        numbers.push_back(number);
        const auto &field = *protobuf_c_message_descriptor_get_field(message->descriptor, number);
        if (field.type == PROTOBUF_C_TYPE_UINT32) {
            mom::set_member(*message, field, value.first);
        } else if (!value.lacks_part) {
            mom::MessagePtr part =
                mom::make_message(*static_cast<const ProtobufCMessageDescriptor *>(field.descriptor));
            mom::set_member(*part, part->descriptor->fields[0], value.first);
            mom::set_member(*part, part->descriptor->fields[1], value.second);
            mom::set_member(*message, field, part.release());
        }
    }
    expect_done(
        mom::set_fields(&client_, db_config, message.get(), numbers.data(), static_cast<uint32_t>(numbers.size())));
}

void Observed::write(Op op, uint32_t db, const char *type, const std::string &key, const Values &values)
{
    const mom::MessagePtr message = mom::decode_key(*mom::find_type(type), key);
    for (const auto &[name, value] : values) {
        mom::set_member(*message, *protobuf_c_message_descriptor_get_field_by_name(message->descriptor, name), value);
    }
    if (op == Op::publish) {
        expect_done(mom::publish(&client_, db, message.get()));
    } else if (op == Op::set) {
        expect_done(tq_mom_set(&client_, db, message.get(), nullptr, nullptr));
    } else {
        expect_done(tq_mom_del(&client_, db, message.get(), nullptr, nullptr));
    }
}

void Observed::write_port(Op op, const PortObject &port)
{
    write(op, db_config, "p_bridge.vvlan_port_cfg", key_of(port), {{"enable", port.enable}, {"mode", port.mode}});
}

void Observed::write_port_noti(Op op, uint32_t phyid)
{
    write(op, db_status, "s_bridge.vvlan_port_noty", std::to_string(phyid));
}

void Observed::write_mac(Op op, const NotiObject &noti)
{
    write(op, db_address, "u_bridge.mac_vid_reg_noti", key_of(noti), {{"port_id", noti.port}});
}

void Observed::write_own(Op op, Own type, uint32_t key)
{
    const OwnType &row = own_types[static_cast<size_t>(type)];
    write(op, row.db, row.name, std::to_string(key));
}

void Observed::start()
{
    std::string why;
    if (!agent_.load(why)) {
        fprintf(stderr, "%s\n", why.c_str());
        exit(2);
    }
    module_ = std::make_unique<Module>();
    *module_->log_level = 0; // formatting lines that nobody reads would be most of the run
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
    page.line("loaded", module_ != nullptr);
    if (module_ != nullptr) {
        print_module(page);
    }
    print_store(page);
    const fp::PlaneState &state = manager_.desired();
    for (size_t acl = 0; acl < fp::acl_count; acl++) {
        for (const fp::Rule &rule : state.rules[acl]) {
            print_rule(page, acl, rule);
        }
    }
    for (const auto &[phyid, acls] : state.binding) {
        page.line("binding", phyid, acls);
    }
}

void Observed::print_module(Page &page) const
{
    const vvlan_glb_cfg_t &global = *module_->global;
    print_global(page, global);
    for (const auto *acl : {&global.cos_acl, &global.mvlan_acl, &global.sec_acl}) {
        page.add(acl->created);
    }
    page.line("over");
    for (const uint8_t *flag : module_->over) {
        page.add(*flag);
    }
    print_ouis(page);
    std::map<uint32_t, const vvlan_port_t *> ports;
    const auto collect_port = [](vvlan_port_t *port, void *arg) {
        static_cast<std::map<uint32_t, const vvlan_port_t *> *>(arg)->emplace(port->ifx, port);
        return 0;
    };
    module_->walk_ports(collect_port, &ports);
    for (const auto &[ifx, port] : ports) {
        print_port(page, ifx, *port);
        for (vvlan_list_t *link = port->mac_list.next; link != &port->mac_list; link = link->next) {
            const auto *mac = VVLAN_LIST_ENTRY(link, vvlan_mac_t, link);
            page.add(std::to_array(mac->mac));
            if (mac->ifx != ifx) {
                page.add("of another port");
            }
        }
    }
    page.line("macs", module_->mac_count());
    std::set<uint32_t> recovery;
    const auto collect = [](vvlan_recover_t *entry, void *arg) {
        static_cast<std::set<uint32_t> *>(arg)->insert(entry->ifx);
        return 0;
    };
    module_->walk_recovery(collect, &recovery);
    for (const uint32_t ifx : recovery) {
        page.line("recovery", ifx);
    }
}

void Observed::print_ouis(Page &page) const
{
    std::set<uint32_t> ids;
    for (uint32_t bucket = 0; bucket < VVLAN_OUI_BUCKET_COUNT; bucket++) {
        const vvlan_list_t &head = module_->oui_buckets[bucket];
        for (vvlan_list_t *link = head.next; link != nullptr && link != &head; link = link->next) {
            const auto *oui = VVLAN_LIST_ENTRY(link, vvlan_oui_t, link);
            page.line("oui", bucket, std::to_array(oui->mac), std::to_array(oui->mask), oui->ace_id);
            ids.insert(oui->ace_id);
        }
    }
    for (uint32_t id = 0; id < VVLAN_ACE_ID_COUNT; id++) {
        if (((module_->ace_ids[id / 8] >> id % 8 & 1) != 0) != ids.contains(id)) {
            page.line("pool differs from OUIs in id", id);
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
        const OwnType &row = own_types[type];
        for (const mom::Object &object : list(row.db, row.name)) {
            page.line(own_words[type], object.key, own_value(static_cast<Own>(type), row.name, object.value.bytes));
        }
    }
    for (const mom::Object &object : list(db_address, "u_bridge.mac_vid_reg")) {
        page.line("registration", object.key);
    }
    std::string error;
    for (const mom::Object &object : list(db_config, "p_bridge.vvlan_err_event")) {
        std::string bytes;
        mom::join_fields(object.value.fields, bytes);
        const Unpacked<PBridge__VvlanErrEvent> event("p_bridge.vvlan_err_event", bytes);
        error = event->oui != nullptr ? "OUI " + oui_text(to_mac(event->oui->mac), to_mac(event->oui->mask))
                                      : "port " + std::to_string(event->ifx);
        if (event->msg_type != (event->oui != nullptr ? 2 : 1) || event->vid != 0 || event->qos != nullptr) {
            error += " and other fields";
        }
    }
    page.line("error_event", error);
}

} // namespace vvl::walk
