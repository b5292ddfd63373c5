// The ACLs in their order: what happens to one frame of a bound port between
// its arrival and the bridge.
#pragma once

#include "platform/fp/classifier.h"
#include "platform/fp/soft/frame.h"

#include <cstdint>
#include <vector>

namespace vvl::fp
{

// The compiled ACLs, by Acl.
struct AclSet {
    Classifier acls[acl_count];

    const Classifier &at(Acl acl) const { return acls[static_cast<size_t>(acl)]; }
};

// What the treatment of a frame depends on, of the port that it came in by.
struct PortPolicy {
    uint8_t bound = 0;   // acl_bit()s
    uint16_t pvid = 1;   // VLAN of untagged frames
    bool uplink = false; // as of PlanePort
};

struct Verdict {
    uint16_t vlan = 0;     // the resulting VLAN
    bool reserved = false; // to a reserved destination: goes on untouched, and is not learned
    bool drop = false;     // denied by an ACL, or the port is not in the voice VLAN
    bool tagged = false;   // given the voice tag
    bool remarked = false; // given CoS or DSCP
};

// Takes a frame through the ACLs that are bound and rewrites it. header: of this
// frame; kept up.
Verdict run_acls(const AclSet &set, const PortPolicy &port, std::vector<uint8_t> &frame, FrameHeader &header);

} // namespace vvl::fp
