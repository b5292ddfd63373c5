// A model of the module: its tables, what it has written into the store and
// what it has asked of the plane. It says what must be true after each event,
// in the plainest form there is, and shares nothing with the module's code.
//
// The module's view of the world is delayed: the store tells its changes
// through the event loop, and a lost link drops what is on its way. So the
// model has a queue of its own, in which deliveries wait until settle().
#pragma once

#include "tests/walk/model_plane.h"
#include "tests/walk/model_store.h"
#include "tests/walk/objects.h"
#include "tests/walk/page.h"
#include "tests/walk/walk_order.h"

#include <deque>
#include <functional>

namespace vvl::walk
{

using PortMap = std::map<uint32_t, uint32_t>; // ifx to phyid

class Model
{
  public:
    explicit Model(PortMap port_map) : port_map_(std::move(port_map)) {}

    // ---- Events ----
    void set_global_fields(const GlobalObject &object); // writes its fields, leaves the others
    void set_global(const GlobalObject &object);        // replaces it by the fields that are not default
    void delete_global() { store_.global.reset(); }     // removals of fields are not acted on
    void set_oui(const OuiObject &oui);
    void delete_oui(const OuiObject &oui);
    void set_port(const PortObject &port);
    void delete_port(uint32_t ifx);
    void set_port_noti(uint32_t phyid);
    void publish_port_noti(uint32_t phyid);
    void delete_port_noti(uint32_t phyid) { store_.port_notis.erase(std::to_string(phyid)); }
    void set_mac(const NotiObject &noti);
    void delete_mac(const NotiObject &noti);
    void publish_mac(const NotiObject &) {} // a notification counts only where it is stored
    void set_own(Own type, uint32_t key);   // left by somebody else
    void delete_own(Own type, uint32_t key) { store_.at(type).erase(std::to_string(key)); }

    bool start();
    void stop();
    void cut(uint32_t db);
    void restore(uint32_t db);
    void settle();
    void advance(uint64_t seconds);

    bool loaded() const { return loaded_; }
    bool is_cut(uint32_t db) const { return links_[db].cut; }
    void print(Page &page) const;

  private:
    struct Link {
        bool cut = false;
        uint64_t generation = 0; // moves on at each cut
        int waiting = 0;         // connect requests that were not answered
        bool ready = false;      // as the module knows it
    };

    struct Port {
        uint32_t phyid = 0;
        bool vvlan_en = false;
        bool auto_mod = false;
        bool auto_join = true;
        bool deny_en = false;
        bool mac_aged = true;
        uint32_t no_flw = 0;
        std::vector<Mac> macs;
    };

    struct Oui {
        Mac mac;
        Mac mask;
        uint32_t ace_id;
    };

    // One of the module's ACLs as the module sees it. Before it was ever set,
    // its descriptor names no ACL, and the plane does nothing with it.
    struct AclRecord {
        bool created = false;
        bool described = false;
    };

    // A subscription of the module, with what it was told of.
    template <typename Object> struct Subscription {
        bool made = false;
        bool established = false;
        std::map<std::string, Object> told;
    };

    // What goes when the module is unloaded.
    struct State {
        bool initialised = false;
        uint64_t timer_due = 0; // seconds
        bool oui_over = false;
        bool port_over = false;
        bool global_over = false;
        bool noti_over = false;
        uint32_t vid = 0;
        bool enable = false;
        uint16_t age_time = 0;
        bool secu_mode = false;
        uint8_t cos = 0;
        uint8_t dscp = 0;
        AclRecord acls[fp::acl_count];
        std::vector<Oui> ouis; // in the order of adding
        std::map<uint32_t, Port> ports;
        WalkOrder order; // of the ports
        std::map<Mac, uint32_t> macs;
        std::set<uint32_t> recovery;
        Subscription<OuiObject> oui_subscription;
        Subscription<PortObject> port_subscription;
        Subscription<uint32_t> noti_subscription;
        std::map<uint32_t, Subscription<uint32_t>> field_subscriptions; // by field number
        // Learned addresses: of one VLAN at a time, 0 being all of them.
        std::optional<uint32_t> mac_vlan;
        uint64_t mac_serial = 0; // tells one subscription from the next
        Subscription<NotiObject> mac_subscription;
    };

    // ---- model_sync.cpp, model_changes.cpp: links, deliveries, start-up ----
    bool reachable(uint32_t db) const { return !links_[db].cut; }
    void post(uint32_t db, std::function<void()> task);
    void connected(uint32_t db);
    void initialise();
    void subscribe_all();
    void subscribe_ouis();
    void subscribe_field(uint32_t field);
    void subscribe_ports();
    void subscribe_notis();
    void scan_ouis();
    void scan_ports();
    void sweep_plane();
    void change_global(GlobalObject object, std::set<uint32_t> fields);
    void subscribe_macs(bool on);
    void withdraw_macs();
    void registration_open();
    void scan_macs(uint32_t ifx);
    void mac_scan_over();

    // ---- model_port.cpp: ports and addresses ----
    void port_event(const PortObject &object);
    void port_removed(uint32_t ifx);
    void port_noti_event(uint32_t phyid);
    void mac_event(bool add, const NotiObject &noti);
    void add_mac(uint32_t ifx, const Mac &mac);
    void drop_mac(const Mac &mac);
    void clear_macs(Port &port);
    int apply_port(uint32_t ifx);
    int join_port(uint32_t ifx, bool join);
    int put_acls(uint32_t ifx);
    int take_acls(uint32_t ifx);
    int leave_at_switch_off(uint32_t ifx);
    int renew_after_oui(uint32_t ifx);
    int set_trap(uint32_t ifx, bool on);
    void age_port(uint32_t ifx);
    void mark_macless(Port &port);
    void walk_ports(int (Model::*step)(uint32_t ifx));
    bool follows_macs(uint32_t ifx) const;

    // ---- model_voice.cpp: global configuration, OUIs, the plane ----
    void global_event(uint32_t field, const GlobalObject &object);
    void switch_event(const GlobalObject::Switch &wanted);
    void switch_on(uint32_t vlan);
    void switch_off(uint32_t vlan);
    void oui_event(bool add, const OuiObject &object);
    void add_oui(const Mac &mac, const Mac &mask);
    void remove_oui(const Mac &mac, const Mac &mask);
    bool is_voice(const Mac &mac) const;
    uint32_t free_ace_id() const;
    void report(const std::string &error);
    void set_acl(fp::Acl acl, bool add);
    void set_voice_ace(const Oui &oui);
    void set_tag_ace(const Oui &oui);
    void set_security_ace();
    void remark(fp::Rule &rule) const;
    void delete_ace(fp::Acl acl, uint64_t id);
    void bind(fp::Acl acl, uint32_t phyid, bool on);
    AclRecord &acl(fp::Acl which) { return state_.acls[static_cast<size_t>(which)]; }
    bool voice_acls_exist() { return acl(fp::Acl::voice).created && acl(fp::Acl::mac_vlan).created; }

    // ---- model_print.cpp ----
    void print_settings(Page &page) const;
    void print_ouis(Page &page) const;
    void print_ports(Page &page) const;

    const PortMap port_map_;
    uint64_t now_ = 0; // seconds
    bool loaded_ = false;
    Link links_[db_count];
    std::deque<std::function<void()>> queue_;
    ModelStore store_;
    ModelPlane plane_;
    State state_;
};

} // namespace vvl::walk
