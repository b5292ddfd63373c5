#include "platform/fp/ebpf/states.h"

#include "platform/fp/classifier.h"
#include "platform/fp/error.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <linux/membarrier.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vvl::fp
{
namespace
{

static_assert(VV_DIGITS == Classifier::digit_count && VV_ACLS == acl_count);
static_assert(FP_UDP_ACE_COUNT_MAX <= VV_RANK_NONE);
static_assert(VV_ACL_MAC_VLAN == static_cast<int>(Acl::mac_vlan) && VV_ACL_VOICE == static_cast<int>(Acl::voice) &&
              VV_ACL_SECURITY == static_cast<int>(Acl::security));

struct FlagOfRule {
    vv_rule_flag flag;
    bool Rule::*member;
};

constexpr FlagOfRule flags_of_rules[] = {
    {VV_RULE_DROP, &Rule::drop},     {VV_RULE_COS, &Rule::set_cos}, {VV_RULE_DSCP, &Rule::set_dscp},
    {VV_RULE_PRIO, &Rule::set_prio}, {VV_RULE_TAG, &Rule::add_tag},
};

vv_rule kernel_rule(const Rule &rule)
{
    vv_rule out{};
    out.mac = to_u64(rule.mac.data());
    out.mask = to_u64(rule.mask.data());
    out.vlan = Classifier::vlan_word(rule.vid, rule.form);
    out.vlan_mask = Classifier::vlan_word(rule.vid_mask, rule.form_mask);
    out.tag_vid = rule.tag_vid;
    out.id = static_cast<uint8_t>(rule.id);
    out.cos = rule.cos;
    out.dscp = rule.dscp;
    out.prio = rule.prio;
    for (const FlagOfRule &row : flags_of_rules) {
        out.flags |= static_cast<uint8_t>(rule.*row.member ? row.flag : 0);
    }
    return out;
}

Rule user_rule(const vv_rule &rule)
{
    Rule out;
    out.id = rule.id;
    out.mac = mac_of(rule.mac);
    out.mask = mac_of(rule.mask);
    out.vid = static_cast<uint16_t>(rule.vlan);
    out.form = static_cast<uint8_t>(rule.vlan >> 16);
    out.vid_mask = static_cast<uint16_t>(rule.vlan_mask);
    out.form_mask = static_cast<uint8_t>(rule.vlan_mask >> 16);
    out.tag_vid = rule.tag_vid;
    out.cos = rule.cos;
    out.dscp = rule.dscp;
    out.prio = rule.prio;
    for (const FlagOfRule &row : flags_of_rules) {
        out.*row.member = (rule.flags & row.flag) != 0;
    }
    return out;
}

// out: VV_RANKS rules.
void compile(std::span<const Rule> rules, vv_acl &acl, vv_rule *out)
{
    const Classifier classifier(rules);
    static_assert(sizeof acl.agreeing == sizeof(Classifier::DigitSets));
    static_assert(sizeof acl.naming == sizeof(Classifier::RuleSet));
    acl = {};
    std::memcpy(acl.agreeing, classifier.agreeing().data(), sizeof acl.agreeing);
    std::memcpy(acl.naming, classifier.naming().data(), sizeof acl.naming);
    acl.vlan = classifier.vlan();
    for (const Rule &rule : classifier.ranked()) {
        out[acl.count++] = kernel_rule(rule);
    }
}

// The index of an ACL's rule of rank 0.
size_t first_rule(size_t state, size_t acl)
{
    return VV_RULE_INDEX(state, acl, size_t{0});
}

// of_port: a word with the bits that do not depend on the ACLs.
uint64_t bind_word(uint32_t generation, uint64_t of_port, uint8_t acls)
{
    return uint64_t{generation} << 32 | (of_port & VV_BIND_OF_PORT) | acls;
}

uint64_t bits_of_port(uint16_t pvid, bool uplink)
{
    return uint64_t{pvid} << 16 | (uplink ? VV_BIND_UPLINK : 0);
}

uint32_t first_place(uint32_t ifindex, uint32_t probe)
{
    return (ifindex + probe) % VV_IFINDEX_PLACES;
}

} // namespace

void name_port(vv_port &entry, const PlanePort &port)
{
    entry.ifx = port.ifx;
    const size_t size = std::min(port.interface.size(), sizeof entry.interface - 1);
    std::memset(entry.interface, 0, sizeof entry.interface);
    std::memcpy(entry.interface, port.interface.data(), size);
}

std::string name_of(const vv_port &entry)
{
    const std::string interface(entry.interface, strnlen(entry.interface, sizeof entry.interface));
    return name_of(PlanePort{.interface = interface, .ifx = entry.ifx});
}

States::States(vv_shared *shared, vv_rule *rules) : shared_(shared), rules_(rules)
{
    for (uint32_t port = 0; port < VV_PORTS_MAX; port++) {
        if (shared_->ports[port].flags & VV_PORT_USED) {
            port_by_phyid_[shared_->ports[port].phyid] = port;
        }
    }
}

uint32_t States::find_port(uint32_t phyid)
{
    const auto known = port_by_phyid_.find(phyid);
    if (known != port_by_phyid_.end()) {
        return known->second;
    }
    // Another process of this switch may have made it.
    const std::span<const vv_port> ports(shared_->ports);
    const auto found = std::ranges::find_if(
        ports, [&](const vv_port &port) { return (port.flags & VV_PORT_USED) != 0 && port.phyid == phyid; });
    if (found == ports.end()) {
        return VV_PORTS_MAX;
    }
    return port_by_phyid_[phyid] = static_cast<uint32_t>(found - ports.begin());
}

// A free place; otherwise that of a port that was taken out of the configuration:
// neither bound nor trapped, without an interface, and not about to be bound.
uint32_t States::find_place(const IsNeeded &is_needed) const
{
    uint32_t left_over = VV_PORTS_MAX;
    for (uint32_t port = 0; port < VV_PORTS_MAX; port++) {
        const vv_port &entry = shared_->ports[port];
        if ((entry.flags & VV_PORT_USED) == 0) {
            return port;
        }
        if (entry.flags == VV_PORT_USED && entry.ifindex == 0 && VV_BIND_BOUND(active().bind[port]) == 0 &&
            !is_needed(entry.phyid)) {
            left_over = port;
        }
    }
    return left_over;
}

uint32_t States::port_for(uint32_t phyid, const IsNeeded &is_needed)
{
    if (const uint32_t known = find_port(phyid); known < VV_PORTS_MAX) {
        return known;
    }
    const uint32_t port = find_place(is_needed);
    if (port >= VV_PORTS_MAX) {
        return VV_PORTS_MAX;
    }
    vv_port *const place = &shared_->ports[port];
    port_by_phyid_.erase(place->phyid);
    *place = {};
    place->phyid = phyid;
    store_bind(port, bits_of_port(1, false), 0);
    place->flags = VV_PORT_USED;
    port_by_phyid_[phyid] = port;
    return port;
}

uint32_t States::next_generation()
{
    return ++shared_->generation;
}

void States::store_bind(uint32_t port, uint64_t of_port, uint8_t acls)
{
    __atomic_store_n(&active().bind[port], bind_word(next_generation(), of_port, acls), __ATOMIC_RELEASE);
}

int States::install(const PlaneState &state)
{
    Bound bound(VV_PORTS_MAX);
    for (const auto &[phyid, acls] : state.binding) {
        if (const uint32_t port = find_port(phyid); port < VV_PORTS_MAX) {
            bound[port] = acls;
        }
    }
    size_t changed_count = 0;
    uint32_t changed = 0; // the last of them
    for (uint32_t port = 0; port < VV_PORTS_MAX; port++) {
        if (VV_BIND_BOUND(active().bind[port]) != bound[port]) {
            changed_count++;
            changed = port;
        }
    }
    bool has_same_rules = true;
    for (size_t i = 0; i < acl_count; i++) {
        has_same_rules = has_same_rules && rules_in_force(i) == state.rules[i];
    }
    if (!has_same_rules || changed_count > 1) {
        return switch_state(state, bound);
    }
    if (changed_count == 1) {
        store_bind(changed, active().bind[changed], bound[changed]);
    }
    return 0;
}

int States::switch_state(const PlaneState &to, const Bound &bound)
{
    if (free_states_ == 0) {
        if (syscall(SYS_membarrier, MEMBARRIER_CMD_GLOBAL, 0, 0) != 0) {
            return -errno;
        }
        free_states_ = VV_STATES - 1;
    }
    const uint32_t next = (shared_->active + 1) % VV_STATES;
    vv_state &state = shared_->states[next];
    for (size_t i = 0; i < acl_count; i++) {
        compile(to.rules[i], state.acls[i], &rules_[first_rule(next, i)]);
    }
    const uint32_t generation = next_generation();
    for (uint32_t port = 0; port < VV_PORTS_MAX; port++) {
        state.bind[port] = bind_word(generation, active().bind[port], bound[port]);
    }
    free_states_--;
    __atomic_store_n(&shared_->active, next, __ATOMIC_RELEASE);
    return 0;
}

void States::set_pvid(uint32_t port, uint16_t pvid, bool uplink)
{
    const uint64_t of_port = bits_of_port(pvid, uplink);
    if (const uint64_t bind = active().bind[port]; (bind & VV_BIND_OF_PORT) != of_port) {
        store_bind(port, of_port, VV_BIND_BOUND(bind));
    }
}

std::vector<Rule> States::rules_in_force(size_t acl) const
{
    std::vector<Rule> out;
    const vv_rule *rules = &rules_[first_rule(shared_->active % VV_STATES, acl)];
    const uint32_t count = std::min<uint32_t>(active().acls[acl].count, VV_RANK_NONE);
    std::transform(rules, rules + count, std::back_inserter(out), user_rule);
    std::ranges::sort(out, {}, &Rule::id);
    return out;
}

PlaneState States::installed() const
{
    PlaneState out;
    for (size_t i = 0; i < acl_count; i++) {
        out.rules[i] = rules_in_force(i);
    }
    for (uint32_t port = 0; port < VV_PORTS_MAX; port++) {
        if (const uint8_t bound = VV_BIND_BOUND(active().bind[port]); bound != 0) {
            out.binding.emplace(shared_->ports[port].phyid, bound);
        }
    }
    return out;
}

bool States::place_interface(uint32_t port, uint32_t ifindex)
{
    const uint64_t place = uint64_t{ifindex} << 32 | port;
    __u64 *found = nullptr;
    for (uint32_t probe = 0; probe < VV_IFINDEX_PROBES; probe++) {
        __u64 &at = shared_->places[first_place(ifindex, probe)];
        if (at == place && shared_->ports[port].ifindex == ifindex) {
            return true;
        }
        if (at >> 32 == ifindex) {
            // It was another port's; the one store below gives its frames to this one.
            if (static_cast<uint32_t>(at) != port) {
                shared_->ports[at % VV_PORTS_MAX].ifindex = 0;
            }
            found = &at;
            break;
        }
        if (at == 0 && found == nullptr) {
            found = &at;
        }
    }
    if (found == nullptr) {
        return false;
    }
    remove_interface(port);
    shared_->ports[port].ifindex = ifindex;
    __atomic_store_n(found, place, __ATOMIC_RELEASE);
    return true;
}

void States::remove_interface(uint32_t port)
{
    uint32_t &ifindex = shared_->ports[port].ifindex;
    for (uint32_t probe = 0; probe < VV_IFINDEX_PROBES; probe++) {
        __u64 &at = shared_->places[first_place(ifindex, probe)];
        if (ifindex != 0 && at >> 32 == ifindex && static_cast<uint32_t>(at) == port) {
            __atomic_store_n(&at, 0, __ATOMIC_RELEASE);
        }
    }
    ifindex = 0;
}

} // namespace vvl::fp
