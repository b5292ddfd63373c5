// The model's global configuration and OUIs, and what follows from them in
// the plane.
#include "tests/walk/model.h"

#include <algorithm>
#include <bit>

namespace vvl::walk
{
namespace
{

using fp::Acl;

constexpr uint32_t ace_id_max = 127;
constexpr uint64_t security_ace_id = 1;
constexpr uint16_t whole_vid = 0xffff;
constexpr Acl all_acls[] = {Acl::voice, Acl::mac_vlan, Acl::security};

bool is_prefix(const Mac &mask)
{
    const uint64_t bits = to_u64(mask.data()) << 16;
    return bits != 0 && std::countl_one(bits) == std::popcount(bits);
}

} // namespace

Mac masked(const Mac &mac, const Mac &mask)
{
    Mac result;
    for (size_t i = 0; i < mac.size(); i++) {
        result[i] = mac[i] & mask[i];
    }
    return result;
}

// ---- Global configuration ----

void Model::global_event(uint32_t field, const GlobalValue &value)
{
    auto &s = state_;
    if (value.lacks_part) {
        return;
    }
    if (field == field_switch) {
        if (value.second != 0) {
            switch_on(value.first);
        } else {
            switch_off(value.first);
        }
        subscribe_macs(value.second != 0);
    } else if (field == field_security) {
        s.secu_mode = value.first != 0;
        set_security_ace();
        for (const auto &port : s.ports) {
            if (port.second.vvlan_en) {
                bind(Acl::security, port.second.phyid, true);
            }
        }
    } else if (field == field_age) {
        s.age_time = static_cast<uint16_t>(value.first);
    } else {
        s.cos = static_cast<uint8_t>(value.first);
        s.dscp = static_cast<uint8_t>(value.second);
        for (const Oui &oui : s.ouis) {
            set_voice_ace(oui);
        }
        set_security_ace();
    }
}

void Model::switch_on(uint32_t vlan)
{
    state_.enable = vlan != 0;
    if (vlan == 0) {
        return;
    }
    state_.vid = vlan;
    for (const Acl which : all_acls) {
        set_acl(which, true);
    }
    set_security_ace();
    for (const Oui &oui : state_.ouis) {
        set_voice_ace(oui);
        set_tag_ace(oui);
    }
    walk_ports(&Model::apply_port);
}

void Model::switch_off(uint32_t vlan)
{
    if (vlan != state_.vid) {
        return;
    }
    state_.vid = 0;
    state_.enable = false;
    walk_ports(&Model::leave_at_switch_off);
    delete_ace(Acl::security, security_ace_id);
    for (const Oui &oui : state_.ouis) {
        delete_ace(Acl::voice, oui.ace_id);
        delete_ace(Acl::mac_vlan, oui.ace_id);
    }
    for (const Acl which : all_acls) {
        set_acl(which, false);
    }
}

void Model::report(const std::string &error)
{
    if (reachable(db_config)) {
        error_event_ = error;
    }
}

// ---- OUIs ----

void Model::oui_event(bool add, const OuiObject &object)
{
    Mac mac;
    Mac mask;
    const size_t slash = object.find('/');
    if (!parse_mac(object.substr(0, slash), mac) || !parse_mac(object.substr(slash + 1), mask)) {
        return;
    }
    if (add) {
        add_oui(mac, mask);
    } else {
        remove_oui(mac, mask);
    }
}

std::vector<Model::Oui>::iterator Model::find_oui(const Mac &mac, const Mac &mask)
{
    return std::ranges::find_if(state_.ouis, [&](const Oui &oui) { return oui.mac == mac && oui.mask == mask; });
}

void Model::add_oui(const Mac &mac, const Mac &mask)
{
    auto &s = state_;
    if (find_oui(mac, mask) != s.ouis.end()) {
        return;
    }
    const Oui oui{mac, mask, free_ace_id()};
    if (oui.ace_id == 0) {
        report("OUI " + oui_text(mac, mask));
        return;
    }
    s.ouis.push_back(oui);
    if (reachable(db_own)) {
        set_own(Own::oui, oui.ace_id, oui_text(mac, mask));
    }
    set_voice_ace(oui);
    set_tag_ace(oui);
    walk_ports(&Model::renew_after_oui);
}

void Model::remove_oui(const Mac &mac, const Mac &mask)
{
    auto &s = state_;
    const auto found = find_oui(mac, mask);
    if (found == s.ouis.end()) {
        return;
    }
    delete_ace(Acl::voice, found->ace_id);
    delete_ace(Acl::mac_vlan, found->ace_id);
    if (reachable(db_own)) {
        delete_own(Own::oui, found->ace_id);
    }
    s.ouis.erase(found);
    const auto macs = s.macs;
    for (const auto &[learned, ifx] : macs) {
        if (masked(learned, mask) != mac) {
            continue;
        }
        drop_mac(learned);
        Port &port = s.ports[ifx];
        if (follows_macs(ifx) && port.macs.empty()) {
            port.no_flw = 0;
            port.mac_aged = true;
        }
    }
}

// Which OUI of several it is does not matter: a learned address keeps none.
bool Model::is_voice(const Mac &mac) const
{
    return std::any_of(state_.ouis.begin(), state_.ouis.end(),
                       [&](const Oui &oui) { return is_prefix(oui.mask) && masked(mac, oui.mask) == oui.mac; });
}

uint32_t Model::free_ace_id() const
{
    for (uint32_t id = 1; id <= ace_id_max; id++) {
        if (std::none_of(state_.ouis.begin(), state_.ouis.end(), [&](const Oui &oui) { return oui.ace_id == id; })) {
            return id;
        }
    }
    return 0;
}

// ---- What is asked of the plane ----

void Model::set_acl(Acl which, bool add)
{
    if (acl(which).created == add) {
        return;
    }
    acl(which) = {add, true};
    if (add) {
        plane_.set_acl(which);
    } else {
        plane_.delete_acl(which);
    }
}

void Model::remark(fp::Rule &rule) const
{
    rule.set_cos = rule.set_dscp = rule.set_prio = true;
    rule.cos = rule.prio = state_.cos;
    rule.dscp = state_.dscp;
}

void Model::set_voice_ace(const Oui &oui)
{
    set_acl(Acl::voice, true);
    fp::Rule rule;
    rule.id = oui.ace_id;
    rule.mac = oui.mac;
    rule.mask = oui.mask;
    rule.vid = static_cast<uint16_t>(state_.vid);
    rule.vid_mask = whole_vid;
    remark(rule);
    plane_.set_ace(Acl::voice, rule);
}

void Model::set_tag_ace(const Oui &oui)
{
    set_acl(Acl::mac_vlan, true);
    fp::Rule rule;
    rule.id = oui.ace_id;
    rule.mac = oui.mac;
    rule.mask = oui.mask;
    rule.form_mask = 3;
    rule.add_tag = true;
    rule.tag_vid = static_cast<uint16_t>(state_.vid);
    plane_.set_ace(Acl::mac_vlan, rule);
}

void Model::set_security_ace()
{
    set_acl(Acl::security, true);
    fp::Rule rule;
    rule.id = security_ace_id;
    rule.vid = static_cast<uint16_t>(state_.vid);
    rule.vid_mask = whole_vid;
    if (state_.secu_mode) {
        rule.drop = true;
    } else {
        remark(rule);
    }
    plane_.set_ace(Acl::security, rule);
}

void Model::delete_ace(Acl which, uint64_t id)
{
    if (acl(which).described) {
        plane_.delete_ace(which, id);
    }
}

void Model::bind(Acl which, uint32_t phyid, bool on)
{
    if (!acl(which).described || (which == Acl::security && on && !state_.enable)) {
        return;
    }
    plane_.bind(which, phyid, on);
}

} // namespace vvl::walk
