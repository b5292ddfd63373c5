// A model of the module: its tables, what it has written into the store and
// what it has asked of the plane. It says what must be true after each event,
// in the plainest form there is, and shares no code with the module but for the
// order of a table (walk_order.h).
//
// The module's view of the world is delayed: the store tells its changes
// through the event loop, and a lost link drops what is on its way. So the
// model has a queue of its own, in which deliveries wait until settle().
#pragma once

#include "platform/host/port_id.h"
#include "tests/walk/model_plane.h"
#include "tests/walk/objects.h"
#include "tests/walk/page.h"
#include "tests/walk/walk_order.h"

#include <array>
#include <deque>
#include <functional>
#include <optional>
#include <set>

namespace vvl::walk
{

// As printed.
std::string oui_text(const Mac &mac, const Mac &mask);

Mac masked(const Mac &mac, const Mac &mask);

class Model
{
  public:
    // ports: those that have a physical id. There are others in the events.
    explicit Model(const std::vector<host::PortId> &ports)
    {
        for (const host::PortId &port : ports) {
            phyids_[port.ifx] = port.phyid;
        }
    }

    // ---- Events ----
    void set_global(const GlobalObject &object);  // writes its fields, leaves the others
    void delete_global() { stored_global_ = {}; } // removals of fields are not acted on
    void write_oui(Op op, const OuiObject &oui) { write(ouis_, op, oui); }
    void write_port(Op op, const PortObject &port) { write(ports_, op, port); }
    void write_port_noti(Op op, uint32_t phyid);
    void write_mac(Op op, const NotiObject &noti) { write(macs_, op, noti); }
    void write_own(Op op, Own type, uint32_t key); // by somebody else

    void start();
    void stop();
    void set_link(uint32_t db, bool up);
    void settle();
    void advance(uint64_t seconds);

    bool loaded() const { return loaded_; }
    bool is_cut(uint32_t db) const { return links_[db].cut; }
    bool any_cut() const;
    void print(Page &page) const;

  private:
    struct Link {
        bool cut = false;
        uint64_t generation = 0; // moves on at each cut
        bool waiting = false;    // for the answer to a connect request
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

    // Objects that others write, and the module's subscription to them.
    template <typename Object> struct Feed {
        uint32_t db;
        void (Model::*event)(bool add, const Object &object);
        std::map<std::string, Object> stored = {};
        // What goes when the module is unloaded.
        bool made = false;
        bool established = false;
        std::map<std::string, Object> told = {};
        void forget() { *this = {db, event, std::move(stored)}; }
    };

    struct OwnObject {
        std::string value; // as printed
        bool marked = false;
    };
    using OwnObjects = std::map<std::string, OwnObject>; // by the text of the key

    enum Scan { oui_scan, port_scan, global_scan, noti_scan, scan_count };

    // What goes when the module is unloaded.
    struct State {
        bool initialised = false;
        uint64_t timer_due = 0; // seconds
        std::array<bool, scan_count> over{};
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
        bool notis_established = false;
        std::set<uint32_t> established_fields;
        // Learned addresses: of one VLAN at a time, 0 being all of them.
        std::optional<uint32_t> mac_vlan;
        uint64_t mac_serial = 0; // tells one subscription from the next
    };

    // ---- model_sync.cpp: links, deliveries, start-up ----
    bool reachable(uint32_t db) const { return !links_[db].cut; }
    void post(uint32_t db, std::function<void()> task);
    void await_answer(uint32_t db);
    void connected(uint32_t db);
    void initialise();
    template <typename Object> void write(Feed<Object> &feed, Op op, const Object &object);
    template <typename Object> bool hears(const Feed<Object> &feed, const Object &object) const;
    template <typename Object> void tell_all(Feed<Object> &feed, const std::map<std::string, Object> &present);
    template <typename Object> void tell_of_gone(Feed<Object> &feed, const std::map<std::string, Object> &present);
    template <typename Object> void subscribe(Feed<Object> &feed, std::set<Own> cycle, void (Model::*scan)());
    void subscribe_field(uint32_t field);
    void subscribe_notis();
    void scan_ouis();
    void scan_ports();
    void mark(Own type);
    void sweep(Own type);
    void finish(Scan scan);
    void subscribe_macs(bool on);
    void withdraw_macs();
    void registration_open();
    void scan_macs(uint32_t ifx);

    // ---- model_port.cpp: ports and addresses ----
    void port_event(bool add, const PortObject &object);
    void remove_port(uint32_t ifx);
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
    void global_event(uint32_t field, const GlobalValue &value);
    void switch_on(uint32_t vlan);
    void switch_off(uint32_t vlan);
    void oui_event(bool add, const OuiObject &object);
    std::vector<Oui>::iterator find_oui(const Mac &mac, const Mac &mask);
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

    OwnObjects &own(Own type) { return own_[static_cast<size_t>(type)]; }
    void set_own(Own type, uint32_t key, std::string value = {});
    void delete_own(Own type, uint32_t key) { own(type).erase(std::to_string(key)); }

    // ---- model_print.cpp ----
    void print_module(Page &page) const;

    std::map<uint32_t, uint32_t> phyids_; // by ifx
    uint64_t now_ = 0;                    // seconds
    bool loaded_ = false;
    Link links_[db_count];
    std::deque<std::function<void()>> queue_;
    ModelPlane plane_;

    // The store: what others write,
    GlobalObject stored_global_;
    Feed<OuiObject> ouis_{db_config, &Model::oui_event};
    Feed<PortObject> ports_{db_config, &Model::port_event};
    Feed<NotiObject> macs_{db_address, &Model::mac_event};
    std::map<std::string, uint32_t> port_notis_; // phyid
    // and what the module does.
    std::array<OwnObjects, own_count> own_;
    OwnObjects registrations_; // u_bridge.mac_vid_reg
    std::string error_event_;  // as printed; empty: none

    State state_;
};

} // namespace vvl::walk
