// Taking the plane away, from what an earlier agent left.
#pragma once

#include "platform/fp/ebpf/options.h"
#include "platform/fp/plane.h"

#include <span>
#include <string>
#include <vector>

namespace vvl::fp
{

// Takes what agents of other versions, with another layout, have left: their
// programs off the interfaces that are not among the ports, and the pins of each
// layout whose programs are at no interface any more. The caller is the agent.
void leave_other_layouts(const std::string &pin_folder, std::span<const PlanePort> ports);

// Takes the programs off every interface of this network namespace and unpins
// all of it. What others have attached or pinned stays, and so does a clsact
// queue discipline that others use or made. Refuses, with nothing changed, while
// an agent or the sides run, for a folder that check_pin_folder() refuses, and
// for the pins of another network namespace. report: one line per thing removed.
bool ebpf_detach(const EbpfOptions &options, std::vector<std::string> &report, std::string &why);

} // namespace vvl::fp
