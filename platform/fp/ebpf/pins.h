// The folder of the pins: who may use it, whose turn it is, and what in it is ours.
//
//   layout-N/        maps and programs by name; see kernel.h
//   unfinished/      the same, until it is complete
//   agent/, sides/   empty; each is locked by the one process that has this role
//   netns-COOKIE/    empty; names the network namespace that the interfaces are in
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
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

// What prepare_pin_folder() has made; to be undone by whoever only tries.
struct PinFolderWork {
    std::vector<std::string> folders; // a parent before its child
    bool mounted = false;             // the BPF file system at its usual place
};

// Makes the folder, open to this user alone, where it is missing. Mounts a BPF
// file system at its usual place where that is missing and the folder is below
// it. Refuses a folder that check_pin_folder() refuses.
bool prepare_pin_folder(const std::string &pin_folder, PinFolderWork &work, std::string &why);
void undo_pin_folder(const PinFolderWork &work);

enum class PinFolder { missing, usable, refused };

// Whether the folder is there and may be trusted: a folder and no symbolic link,
// on a BPF file system, this user's, and writable by nobody else; nor may others
// replace it from a folder above. why: of a refusal.
PinFolder check_pin_folder(const std::string &pin_folder, std::string &why);

constexpr std::chrono::milliseconds turn_limit{10'000}; // to load the programs takes less

// Makes other processes of the switch wait until the result is destroyed. Empty,
// with the reason, on failure or where another process does not end its turn.
UniqueFd take_turn(const std::string &pin_folder, std::string &why, std::chrono::milliseconds limit = turn_limit);

enum class PlaneRole { agent, sides };

// Makes this process the only one with the role, until the result is destroyed.
// Does not wait. Empty, with the reason, where another process has the role. The
// caller has the turn.
UniqueFd lock_role(const std::string &pin_folder, PlaneRole role, std::string &why);

// The kernel's number of this process's network namespace, never used twice; 0
// where it cannot be told.
uint64_t this_network();
// That of the network namespace which the folder is for; 0 where that is not known.
uint64_t network_of_pins(const std::string &pin_folder);
// The caller has the turn.
void set_network_of_pins(const std::string &pin_folder, uint64_t network);

// Removes the pins of these names from every layout folder, then all of our
// folders that are empty. Nothing else goes, and no symbolic link is followed.
// Returns false with the reason where a pin of ours stays. removed: whether the
// folder itself is gone. The caller has the turn and both roles.
bool remove_pins(const std::string &pin_folder, std::span<const std::string> names, bool &removed, std::string &why);

// The folders of layouts, "layout-N", by name.
std::vector<std::string> layouts_of(const std::string &pin_folder);

// The same for one of our folders in the pin folder.
bool remove_pins_of(const std::string &pin_folder, const std::string &folder, std::span<const std::string> names,
                    std::string &why);

// "No such file or directory" for 2 or -2.
std::string error_text(int error);

} // namespace vvl::fp
