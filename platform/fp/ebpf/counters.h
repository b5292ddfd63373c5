// The counters of the kernel's programs, summed over the processors.
#pragma once

#include "platform/fp/ebpf/kernel.h"
#include "platform/fp/ebpf/options.h"
#include "platform/fp/plane.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vvl::fp
{

// Of a port's index; zero for VV_PORTS_MAX.
vv_port_counters read_port_counters(const KernelSide &side, uint32_t index);
PortCounters user_counters(const vv_port_counters &counters);

// Frames that an ACE acted on; zero for an id that is out of range.
uint64_t read_ace_counter(const KernelSide &side, Acl acl, uint64_t id);

// The counters of what is pinned, whether or not an agent runs: one line per port,
// and one per ACE that has acted. False too where a port is not served although its
// interface is there; why names it, and its line the reason.
bool ebpf_counters(const EbpfOptions &options, std::vector<std::string> &report, std::string &why);

} // namespace vvl::fp
