// The kernel's half as the agent holds it: maps and programs, loaded or taken
// over from the previous agent, and pinned so that they outlive this one.
//
// The pin folder has one sub-folder for each layout of the maps. It is filled
// under another name and then renamed, so it is complete or does not exist.
#pragma once

#include "platform/fp/ebpf/layout.h"
#include "platform/fp/ebpf/options.h"
#include "platform/fp/ebpf/pins.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vvl::fp
{

// The values of a map, mapped into this process.
class SharedMemory
{
  public:
    SharedMemory() = default;
    ~SharedMemory();
    SharedMemory(const SharedMemory &) = delete;
    SharedMemory &operator=(const SharedMemory &) = delete;

    bool map(int fd, size_t size, bool writable);
    void *get() const { return address_; }

  private:
    void *address_ = nullptr;
    size_t size_ = 0; // bytes
};

struct KernelSide {
    std::string folder;  // of the pins of this layout
    UniqueFd agent_lock; // held by the process that has the role; see lock_role()
    UniqueFd sides_lock;
    UniqueFd globals; // maps
    UniqueFd rules;
    UniqueFd seen;
    UniqueFd cache;
    UniqueFd port_counters;
    UniqueFd ace_counters;
    UniqueFd events;
    UniqueFd ingress; // programs
    UniqueFd egress;
    SharedMemory globals_memory;
    SharedMemory rules_memory;

    vv_shared &shared() const { return *static_cast<vv_shared *>(globals_memory.get()); }
    vv_rule *all_rules() const { return static_cast<vv_rule *>(rules_memory.get()); } // VV_RULES_MAX
};

// Takes over what is pinned in the folder or makes it, after it has locked the
// roles that the options ask for; without them it changes nothing. An agent puts
// the programs of this build in place of earlier ones. On failure why names the
// object and the reason.
bool open_kernel_side(const EbpfOptions &options, KernelSide &side, std::string &why);

// Opens what is pinned, for reading only. Returns false, with an empty why where
// nothing is pinned and with the reason where it cannot be read.
bool view_kernel_side(const std::string &pin_folder, KernelSide &side, std::string &why);

// The names of all pins in the folder of a layout.
std::vector<std::string> names_of_pins();

// The numbers of the programs that are pinned in the folder of a layout, of any one.
std::vector<uint32_t> programs_of(const std::string &layout_folder);

// Whether the kernel accepts the programs: loads and drops them. why holds the
// end of the kernel's log.
bool try_programs(std::string &why);

// The kernel's number of a program; 0 where it cannot be told.
uint32_t id_of_program(int fd);

} // namespace vvl::fp
