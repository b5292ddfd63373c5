// The programs at the interfaces: clsact queue disciplines and their filters.
#pragma once

#include "platform/fp/ebpf/kernel.h"

#include <string>

namespace vvl::fp
{

// Puts both programs on the interface, replacing other versions of them; does
// nothing where they are attached already. made_clsact: set where the interface had no
// clsact queue discipline before. On failure why tells the reason.
bool attach_programs(unsigned ifindex, const KernelSide &side, bool &made_clsact, std::string &why);

enum class Detached { nothing, programs, programs_and_clsact, failed };

// Takes our programs off the interface, whichever agent has attached them, and
// the queue discipline too where we made it and nobody else uses it. side: what
// is pinned; may be empty.
Detached detach_programs(unsigned ifindex, const KernelSide &side, bool made_clsact, std::string &why);

} // namespace vvl::fp
