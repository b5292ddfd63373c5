// The model's ports: configuration, joining and leaving, aging, and the
// learned addresses behind them. Failures come from one place only, a database
// that cannot be reached: what was done before stays, what comes after is not.
#include "tests/walk/model.h"

namespace vvl::walk
{
namespace
{

using fp::Acl;

constexpr int failed = -11;
constexpr uint32_t seconds_per_minute = 60;

} // namespace

// ---- Configuration ----

void Model::port_event(bool add, const PortObject &object)
{
    if (!add) {
        remove_port(object.ifx);
        return;
    }
    const std::string key = key_of(object);
    if (object.mode == 1) { // and not 3, which is automatic as well
        if (auto kept = own(Own::port_auto).find(key); kept != own(Own::port_auto).end()) {
            kept->second = {"1", false};
        }
        if (!reachable(db_own)) {
            return;
        }
        if (auto kept = own(Own::join).find(key); kept != own(Own::join).end()) {
            kept->second.marked = false;
        }
    }
    const bool is_new = !state_.ports.contains(object.ifx);
    Port &port = state_.ports[object.ifx];
    port.vvlan_en = (object.enable & 1) != 0;
    port.auto_mod = (object.mode & 1) != 0;
    if (is_new) {
        state_.order.insert(object.ifx);
        const auto known = phyids_.find(object.ifx);
        if (known == phyids_.end()) {
            return;
        }
        port.phyid = known->second;
    }
    apply_port(object.ifx);
}

void Model::remove_port(uint32_t ifx)
{
    if (state_.ports.contains(ifx) && take_acls(ifx) == 0) {
        clear_macs(state_.ports[ifx]);
        state_.ports.erase(ifx);
        state_.order.remove(ifx);
    }
}

void Model::port_noti_event(uint32_t phyid)
{
    for (const auto &[ifx, mapped] : phyids_) {
        if (mapped == phyid && follows_macs(ifx)) {
            join_port(ifx, true);
        }
    }
}

int Model::apply_port(uint32_t ifx)
{
    Port &port = state_.ports[ifx];
    if (port.vvlan_en) {
        if (!state_.enable) {
            return 0;
        }
        if (put_acls(ifx) != 0) {
            report("port " + std::to_string(ifx));
        }
        if (port.auto_mod) {
            scan_macs(ifx);
        } else {
            clear_macs(port);
        }
        return 0;
    }
    if (take_acls(ifx) != 0) {
        return failed;
    }
    if (port.auto_mod) {
        if (join_port(ifx, false) != 0) {
            return failed;
        }
        clear_macs(port);
    }
    return 0;
}

// ---- Joining and leaving ----

int Model::join_port(uint32_t ifx, bool join)
{
    Port &port = state_.ports[ifx];
    port.deny_en = !join;
    port.auto_join = join;
    if (join) {
        state_.recovery.insert(ifx);
    } else {
        state_.recovery.erase(ifx);
    }
    if (reachable(db_own)) {
        delete_own(Own::join, ifx);
        if (join) {
            set_own(Own::join, ifx);
        }
    }
    if (!reachable(db_config)) {
        return failed;
    }
    delete_own(Own::port_auto, ifx);
    if (join) {
        set_own(Own::port_auto, ifx, "1");
    }
    if (port.vvlan_en && set_trap(ifx, !join) != 0) {
        return failed;
    }
    bind(Acl::voice, port.phyid, join);
    bind(Acl::mac_vlan, port.phyid, join);
    return 0;
}

int Model::set_trap(uint32_t ifx, bool on)
{
    state_.ports[ifx].deny_en = on;
    if (!reachable(db_own)) {
        return failed;
    }
    delete_own(Own::trap, ifx);
    if (on) {
        set_own(Own::trap, ifx);
    }
    return 0;
}

int Model::put_acls(uint32_t ifx)
{
    const Port &port = state_.ports[ifx];
    if (voice_acls_exist()) {
        const bool rejoins = state_.recovery.contains(ifx) && !state_.over[port_scan];
        const bool is_in = !port.auto_mod || rejoins;
        const int result = set_trap(ifx, !is_in);
        bind(Acl::voice, port.phyid, is_in);
        bind(Acl::mac_vlan, port.phyid, is_in);
        if (result != 0) {
            return result;
        }
    }
    if (acl(Acl::security).created) {
        bind(Acl::security, port.phyid, true);
    }
    return 0;
}

int Model::take_acls(uint32_t ifx)
{
    const Port &port = state_.ports[ifx];
    int result = 0;
    if (voice_acls_exist()) {
        if (port.auto_mod && port.deny_en) {
            result = set_trap(ifx, false);
        }
        bind(Acl::voice, port.phyid, false);
        bind(Acl::mac_vlan, port.phyid, false);
    }
    if (acl(Acl::security).created) {
        bind(Acl::security, port.phyid, false);
    }
    return result;
}

int Model::leave_at_switch_off(uint32_t ifx)
{
    Port &port = state_.ports[ifx];
    take_acls(ifx);
    clear_macs(port);
    if (port.auto_mod && port.auto_join) {
        port.auto_join = false;
        state_.recovery.erase(ifx);
        if (reachable(db_own)) {
            delete_own(Own::join, ifx);
        }
        if (!reachable(db_config)) {
            return failed;
        }
        delete_own(Own::port_auto, ifx);
    } else if (port.auto_mod && port.deny_en) {
        set_trap(ifx, false);
    }
    return 0;
}

int Model::renew_after_oui(uint32_t ifx)
{
    const Port &port = state_.ports[ifx];
    if (!port.vvlan_en || !state_.enable || !voice_acls_exist()) {
        return 0;
    }
    const int result = set_trap(ifx, port.auto_mod);
    if (!port.auto_mod) {
        bind(Acl::voice, port.phyid, true);
        bind(Acl::mac_vlan, port.phyid, true);
    }
    return result;
}

void Model::age_port(uint32_t ifx)
{
    Port &port = state_.ports[ifx];
    if (!port.vvlan_en || !port.auto_mod || !port.auto_join || port.deny_en || !port.mac_aged) {
        port.no_flw = 0;
        return;
    }
    port.no_flw += seconds_per_minute;
    if (port.no_flw >= state_.age_time * seconds_per_minute) {
        port.no_flw = 0;
        join_port(ifx, false);
        set_trap(ifx, true);
    }
}

void Model::walk_ports(int (Model::*step)(uint32_t ifx))
{
    for (const uint32_t ifx : state_.order.keys()) {
        if ((this->*step)(ifx) != 0) {
            return;
        }
    }
}

// ---- Learned addresses ----

bool Model::follows_macs(uint32_t ifx) const
{
    const auto port = state_.ports.find(ifx);
    return port != state_.ports.end() && port->second.vvlan_en && port->second.auto_mod;
}

void Model::mark_macless(Port &port)
{
    port.no_flw = 0;
    port.deny_en = false;
    port.auto_join = true;
    port.mac_aged = true;
}

void Model::mac_event(bool add, const NotiObject &noti)
{
    Mac mac;
    if (!parse_mac(noti.mac, mac) || !follows_macs(noti.port)) {
        return;
    }
    Port &port = state_.ports[noti.port];
    if (port.macs.empty()) {
        mark_macless(port);
    }
    if (add) {
        if (is_voice(mac)) {
            add_mac(noti.port, mac);
        }
    } else if (state_.macs.contains(mac)) {
        drop_mac(mac);
        if (port.macs.empty()) {
            mark_macless(port);
        }
    }
}

void Model::add_mac(uint32_t ifx, const Mac &mac)
{
    Port &port = state_.ports[ifx];
    const auto known = state_.macs.find(mac);
    if (known == state_.macs.end()) {
        state_.macs[mac] = ifx;
        port.macs.push_back(mac);
    } else if (const uint32_t old_ifx = known->second; old_ifx != ifx && follows_macs(old_ifx)) {
        Port &old_port = state_.ports[old_ifx];
        drop_mac(mac);
        if (old_port.macs.empty()) {
            old_port.no_flw = 0;
            old_port.mac_aged = true;
        }
        state_.macs[mac] = ifx;
        port.macs.push_back(mac);
    }
    port.no_flw = 0;
    port.mac_aged = false;
}

void Model::drop_mac(const Mac &mac)
{
    std::erase(state_.ports[state_.macs[mac]].macs, mac);
    state_.macs.erase(mac);
}

void Model::clear_macs(Port &port)
{
    for (const Mac &mac : port.macs) {
        state_.macs.erase(mac);
    }
    port.macs.clear();
}

} // namespace vvl::walk
