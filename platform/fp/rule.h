// What the forwarding plane is told: rules, the ACLs that hold them, and the
// ports that ACLs are bound to. Both planes work from these records.
#pragma once

#include "platform/base/mac.h"

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

namespace vvl::fp
{

// The ACLs that a frame passes, in this order.
enum class Acl : uint8_t {
    mac_vlan, // "mac_vlan_app": decides the VLAN
    voice,    // "vvlan_secu_pas_app": voice devices in the voice VLAN
    security, // "vvlan_secu_deny_app": everything else in the voice VLAN
};
constexpr size_t acl_count = 3;

// Ranges of a rule's values.
constexpr uint8_t cos_max = 7;     // IEEE 802.1Q: three bits of priority
constexpr uint8_t dscp_max = 63;   // RFC 2474: six bits
constexpr uint16_t vid_max = 4094; // IEEE 802.1Q: 4095 is reserved

constexpr uint8_t acl_bit(Acl acl)
{
    return static_cast<uint8_t>(1u << static_cast<unsigned>(acl));
}

// How a frame is tagged, as the "vlan_form" match field sees it under mask 3.
enum class VlanForm : uint8_t {
    untagged = 0,      // no 802.1Q tag with a VLAN id; maybe priority tags (VLAN 0)
    tagged = 1,        // one 802.1Q tag, or a priority tag and one inside
    double_tagged = 2, // an outer tag with a VLAN id, and an inner tag
};

// One ACE. A match that is not set matches every frame. Of several matching rules
// the one with the MAC mask that comes first acts: a prefix of 24 bits, then of 48,
// then the longest prefix, then the mask with most bits, then the lowest id.
// Acl::mac_vlan acts by add_tag alone, and sees the VLAN id as it is on the wire
// (0 without a tag); the others act by the rest, and see the resulting VLAN.
struct Rule {
    uint64_t id = 0;       // ACE id, 1 to FP_UDP_ACE_COUNT_MAX
    Mac mac{};             // compared under mask; bits outside the mask are ignored
    Mac mask{};            // all zero: any source MAC
    uint16_t vid = 0;      // VLAN id, compared under vid_mask
    uint16_t vid_mask = 0; // 0: any VLAN
    uint8_t form = 0;      // VlanForm, compared under form_mask
    uint8_t form_mask = 0; // 0: any form
    bool drop = false;     // "fwd" 0
    bool set_cos = false;  // 802.1p priority of the outer tag := cos
    bool set_dscp = false; // IPv4 DSCP and IPv6 traffic class := dscp
    bool set_prio = false; // internal priority := prio
    bool add_tag = false;  // VLAN := tag_vid
    uint8_t cos = 0;       // 0 to 7
    uint8_t dscp = 0;      // 0 to 63
    uint8_t prio = 0;      // 0 to 7
    uint16_t tag_vid = 0;  // 1 to 4094
    bool operator==(const Rule &) const = default;
};

// Whether frames to this address (as of to_u64) are for the next bridge or switch
// alone: 01:80:C2:00:00:00 to 0F (IEEE 802.1Q, table 8-1), and the vendors'
// discovery addresses 01:00:0C:CC:CC:CC and CD.
constexpr bool is_reserved(uint64_t destination)
{
    return (destination & ~uint64_t{0xf}) == 0x0180c2000000 || (destination & ~uint64_t{1}) == 0x01000ccccccc;
}

// A whole forwarding state.
struct PlaneState {
    std::vector<Rule> rules[acl_count];  // by Acl, ascending id
    std::map<uint32_t, uint8_t> binding; // phyid -> acl_bit()s; ports without any are absent
    bool operator==(const PlaneState &) const = default;
};

// Whether a plane can take these rules: ascending ids from 1 to
// FP_UDP_ACE_COUNT_MAX, every value in its range. Otherwise why names
// the rule and the reason.
bool check_rules(std::span<const Rule> rules, std::string &why);

// The same for the rules of all ACLs.
bool check_state(const PlaneState &state, std::string &why);

} // namespace vvl::fp
