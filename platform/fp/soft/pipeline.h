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

struct Verdict {
    uint16_t vlan = 0;     // the resulting VLAN
    bool drop = false;     // denied by an ACL
    bool tagged = false;   // given the voice tag
    bool remarked = false; // given CoS or DSCP
};

// Takes a frame through the ACLs that are bound (acl_bit()s) and rewrites it.
// pvid: VLAN of the port's untagged frames. header: of this frame; kept up.
Verdict run_acls(const AclSet &set, uint8_t bound, uint16_t pvid, std::vector<uint8_t> &frame, FrameHeader &header);

} // namespace vvl::fp
