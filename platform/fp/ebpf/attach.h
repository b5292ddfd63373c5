// The programs at the interfaces: clsact queue disciplines and their filters.
#pragma once

#include "platform/fp/ebpf/kernel.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vvl::fp
{

// Puts both programs on the interface, replacing other versions of them; does
// nothing where they are attached already. made_clsact: set where the interface had no
// clsact queue discipline before. On failure why tells the reason.
bool attach_programs(unsigned ifindex, const KernelSide &side, bool &made_clsact, std::string &why);

enum class Standing {
    complete, // both programs get every frame of the interface
    lost,     // one of them is missing, or is of another version: attach_programs() helps
    blocked,  // another filter has our place or comes before it
};

// How the programs stand at the interface; what: what is wrong. Needs no privilege.
Standing look_at_programs(unsigned ifindex, const KernelSide &side, std::string &what);

// The numbers of our programs at the interface, whichever agent has attached them.
std::vector<uint32_t> programs_at(unsigned ifindex);

enum class Detached { nothing, programs, programs_and_clsact, failed };

// Takes our programs off the interface, whichever agent has attached them, and
// the queue discipline too where we made it and nobody else uses it.
Detached detach_programs(unsigned ifindex, bool made_clsact, std::string &why);

} // namespace vvl::fp
