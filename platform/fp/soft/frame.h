// Ethernet frames as bytes: reading the header, and the rewrites that the ACLs
// ask for. Frames are without FCS. Nothing reads or writes past the frame.
#pragma once

#include "platform/fp/rule.h"

#include <cstdint>
#include <span>
#include <vector>

namespace vvl::fp
{

// What the plane needs to know of a frame.
struct FrameHeader {
    uint64_t destination = 0; // as of to_u64
    uint64_t source = 0;      // as of to_u64
    uint8_t tag_count = 0;    // 0 to 2; further tags count as payload
    uint16_t outer_vid = 0;   // VLAN id of the outer tag; 0 without one
    uint16_t vid = 0;         // of the outer tag that has one: the inner one counts behind a VLAN 0
    uint16_t ethertype = 0;   // behind the tags; below 0x0600 it is a length
    size_t payload = 0;       // offset of the first byte behind it

    // Whether a tag says which VLAN the frame is in. A priority tag (VLAN 0) does not.
    bool in_tagged_vlan() const { return vid != 0; }
    VlanForm form() const;
};

// Reads the header. Returns false, with header undefined, where the frame ends
// within it. A tag is one of 802.1Q (0x8100), 802.1ad (0x88a8) or the older
// 0x9100; the inner one must be 0x8100 or 0x88a8.
bool read_header(std::span<const uint8_t> frame, FrameHeader &header);

// Puts a frame that is not in a tagged VLAN into vid: a priority tag takes the
// id and keeps its priority and DEI, any other frame gets a tag of priority 0
// behind its addresses. header is kept up.
void add_tag(std::vector<uint8_t> &frame, FrameHeader &header, uint16_t vid);

// Sets the priority of the outer tag; DEI and VLAN id stay. Returns false for
// a frame without a tag.
bool set_cos(std::span<uint8_t> frame, const FrameHeader &header, uint8_t cos);

// Sets the DSCP of an IPv4 or IPv6 frame; the ECN bits stay, the IPv4 checksum
// follows. Returns false, with the frame as it was, where there is no whole IP
// header; true also where the DSCP is already there.
bool set_dscp(std::span<uint8_t> frame, const FrameHeader &header, uint8_t dscp);

} // namespace vvl::fp
