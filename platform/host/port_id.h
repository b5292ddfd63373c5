// A row of the port-id map (libddm.h).
#pragma once

#include <cstdint>

namespace vvl::host
{

// One row of the port-id map.
struct PortId {
    uint32_t ifx;   // interface index, the key of configuration
    uint32_t phyid; // physical port id, the key of the forwarding plane
};

} // namespace vvl::host
