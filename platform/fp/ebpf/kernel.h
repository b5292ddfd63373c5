// The kernel's half as the agent holds it: maps and programs, loaded or taken
// over from the previous agent, and pinned so that they outlive this one.
//
// The pin folder has one sub-folder for each layout of the maps. It is filled
// under another name and then renamed, so it is complete or does not exist.
#pragma once

#include "platform/fp/ebpf/layout.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vvl::fp
{

class UniqueFd
{
  public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    ~UniqueFd();
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

  private:
    int fd_;
};

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
    std::string folder;   // of the pins
    UniqueFd folder_lock; // of the one process that writes states; see lock_states
    UniqueFd globals;     // maps
    UniqueFd rules;
    UniqueFd seen;
    UniqueFd cache;
    UniqueFd port_counters;
    UniqueFd ace_counters;
    UniqueFd events;
    UniqueFd ingress; // programs
    UniqueFd egress;
    std::vector<uint32_t> program_ids; // of the programs that are pinned, and of those whose place they took
    SharedMemory globals_memory;
    SharedMemory rules_memory;

    vv_shared &shared() const { return *static_cast<vv_shared *>(globals_memory.get()); }
    vv_rule *all_rules() const { return static_cast<vv_rule *>(rules_memory.get()); } // VV_RULES_MAX
};

// Takes over what is pinned in the folder, with the programs of this build, or
// makes them. On failure why names the object and the reason.
bool open_kernel_side(const std::string &pin_folder, KernelSide &side, std::string &why);

// Opens what is pinned, for reading only. Returns false, with an empty why where
// nothing is pinned and with the reason where it cannot be read.
bool view_kernel_side(const std::string &pin_folder, KernelSide &side, std::string &why);

// Makes other processes of the switch wait until the result is destroyed. Empty,
// with the reason, on failure.
UniqueFd take_turn(const std::string &pin_folder, std::string &why);

// Makes this process the one that writes states. Returns false where another process is.
bool lock_states(KernelSide &side);

// Removes the pins; maps and programs go with their last user. Returns false
// with the reason where a pin stays.
bool remove_pins(const std::string &pin_folder, std::string &why);

// Whether the kernel accepts the programs: loads and drops them. why holds the
// end of the kernel's log.
bool try_programs(std::string &why);

// Whether the folder is on a BPF file system. Mounts one at its usual place
// where that is missing and the folder is below it.
bool prepare_pin_folder(const std::string &pin_folder, std::string &why);

// The kernel's number of a program; 0 where it cannot be told.
uint32_t id_of_program(int fd);

// "No such file or directory" for 2 or -2.
std::string error_text(int error);

} // namespace vvl::fp
