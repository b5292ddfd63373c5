// The programs at the interfaces: clsact queue disciplines and their filters.
#pragma once

#include "platform/fp/ebpf/kernel.h"

#include <string>

namespace vvl::fp
{

// Puts both programs on the interface, in the place of other ones of ours; does
// nothing where they are there. made_clsact: set where the interface had no
// clsact queue discipline before. On failure why tells the reason.
bool attach_programs(unsigned ifindex, const KernelSide &side, bool &made_clsact, std::string &why);

enum class Detached { nothing, programs, programs_and_clsact, failed };

// Takes programs of ours off the interface, whichever agent has put them there;
// the queue discipline too where we made it and nobody else uses it. side: what
// is pinned; may be empty.
Detached detach_programs(unsigned ifindex, const KernelSide &side, bool made_clsact, std::string &why);

} // namespace vvl::fp
