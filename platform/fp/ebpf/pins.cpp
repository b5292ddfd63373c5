// A name in the folder may be anybody's, so each step works on an open folder and
// on names in it, and is checked there.
#include "platform/fp/ebpf/pins.h"

#include "platform/base/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/magic.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <thread>
#include <unistd.h>

namespace vvl::fp
{
namespace
{

namespace fs = std::filesystem;

constexpr const char *usual_bpffs = "/sys/fs/bpf";
constexpr const char *network_prefix = "netns-";
constexpr const char *layout_prefix = "layout-";
constexpr std::chrono::milliseconds poll_interval{10};

bool is_bpffs(const std::string &path)
{
    struct statfs info {
    };
    return statfs(path.c_str(), &info) == 0 && info.f_type == BPF_FS_MAGIC;
}

fs::path absolute_path(const std::string &path)
{
    const fs::path whole = fs::absolute(path).lexically_normal();
    return whole.has_filename() ? whole : whole.parent_path();
}

std::string refusal(const std::string &path, const char *reason)
{
    return path + ": not safe as a pin folder: " + reason;
}

// Whether nobody else can replace what is at the path: each folder above it, as
// named and as resolved, is root's or this user's, and others may not rename in it.
bool is_way_safe(const fs::path &path, std::string &why)
{
    std::error_code failed;
    for (const fs::path &way : {path.parent_path(), fs::canonical(path.parent_path(), failed)}) {
        for (fs::path folder = way; !failed; folder = folder.parent_path()) {
            struct stat info {
            };
            if (lstat(folder.c_str(), &info) != 0) {
                why = folder.string() + ": " + error_text(errno);
                return false;
            }
            if (info.st_uid != 0 && info.st_uid != geteuid()) {
                why = refusal(path, ("a folder above it belongs to another user: " + folder.string()).c_str());
                return false;
            }
            if (!S_ISLNK(info.st_mode) && (info.st_mode & (S_IWGRP | S_IWOTH)) && !(info.st_mode & S_ISVTX)) {
                why = refusal(path, ("others may write to a folder above it: " + folder.string()).c_str());
                return false;
            }
            if (folder == folder.root_path()) {
                break;
            }
        }
    }
    why = failed ? path.parent_path().string() + ": " + failed.message() : "";
    return !failed;
}

// An open folder below another one; empty where it is missing or no folder.
UniqueFd open_folder(int parent, const char *name)
{
    return UniqueFd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

std::vector<std::string> names_with(const std::string &folder, const std::string &prefix)
{
    std::vector<std::string> names;
    std::error_code failed;
    for (fs::directory_iterator at(folder, failed), end; !failed && at != end; at.increment(failed)) {
        if (const std::string name = at->path().filename(); name.starts_with(prefix)) {
            names.push_back(name);
        }
    }
    std::ranges::sort(names);
    return names;
}

bool is_same(int fd, const std::string &path)
{
    struct stat open {
    };
    struct stat there {
    };
    return fstat(fd, &open) == 0 && lstat(path.c_str(), &there) == 0 && open.st_ino == there.st_ino &&
           open.st_dev == there.st_dev;
}

} // namespace

UniqueFd::~UniqueFd()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

std::string error_text(int error)
{
    return std::strerror(std::abs(error));
}

PinFolder check_pin_folder(const std::string &pin_folder, std::string &why)
{
    const fs::path path = absolute_path(pin_folder);
    struct stat info {
    };
    if (lstat(path.c_str(), &info) != 0) {
        why = errno == ENOENT ? "" : pin_folder + ": " + error_text(errno);
        return why.empty() ? PinFolder::missing : PinFolder::refused;
    }
    why.clear();
    if (S_ISLNK(info.st_mode)) {
        why = refusal(pin_folder, "it is a symbolic link");
    } else if (!is_bpffs(path)) {
        why = pin_folder + ": not on a BPF file system (mount -t bpf)";
    } else if (!S_ISDIR(info.st_mode)) {
        why = pin_folder + ": not a folder";
    } else if (info.st_uid != geteuid()) {
        why = refusal(pin_folder, "it belongs to another user");
    } else if (info.st_mode & (S_IWGRP | S_IWOTH)) {
        why = refusal(pin_folder, "others may write to it (chmod 0700)");
    }
    return why.empty() && is_way_safe(path, why) ? PinFolder::usable : PinFolder::refused;
}

bool prepare_pin_folder(const std::string &pin_folder, PinFolderWork &work, std::string &why)
{
    fs::path there = absolute_path(pin_folder);
    const bool is_below_usual = there.string().starts_with(std::string(usual_bpffs) + "/");
    if (is_below_usual && !is_bpffs(usual_bpffs)) {
        if (mount("bpf", usual_bpffs, "bpf", 0, "mode=0700") != 0) {
            why = std::string(usual_bpffs) + ": no BPF file system is mounted, and it cannot be: " + error_text(errno);
            return false;
        }
        work.mounted = true;
    }
    std::vector<std::string> missing;
    struct stat info {
    };
    while (lstat(there.c_str(), &info) != 0 && errno == ENOENT) {
        missing.push_back(there);
        there = there.parent_path();
    }
    if (!missing.empty() && !is_bpffs(there)) {
        why = pin_folder + ": not on a BPF file system (mount -t bpf)";
        return false;
    }
    for (auto folder = missing.rbegin(); folder != missing.rend(); ++folder) {
        if (mkdir(folder->c_str(), 0700) == 0) {
            work.folders.push_back(*folder);
        } else if (errno != EEXIST) {
            why = pin_folder + ": cannot be made: " + error_text(errno);
            why += pin_folder.find('.') != std::string::npos ? " (a BPF file system takes no dots)" : "";
            return false;
        }
    }
    return check_pin_folder(pin_folder, why) == PinFolder::usable;
}

void undo_pin_folder(const PinFolderWork &work)
{
    for (auto folder = work.folders.rbegin(); folder != work.folders.rend(); ++folder) {
        rmdir(folder->c_str());
    }
    if (work.mounted) {
        umount2(usual_bpffs, UMOUNT_NOFOLLOW);
    }
}

UniqueFd take_turn(const std::string &pin_folder, std::string &why, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        UniqueFd folder = open_folder(AT_FDCWD, pin_folder.c_str());
        if (!folder) {
            why = pin_folder + ": cannot be locked: " + error_text(errno);
            return UniqueFd();
        }
        const bool locked = flock(folder.get(), LOCK_EX | LOCK_NB) == 0;
        if (locked && is_same(folder.get(), pin_folder)) {
            return folder; // not one that was removed meanwhile
        }
        if (!locked && errno != EWOULDBLOCK) {
            why = pin_folder + ": cannot be locked: " + error_text(errno);
            return UniqueFd();
        }
        if (std::chrono::steady_clock::now() >= end) {
            why = pin_folder + ": another process has kept it locked for " + std::to_string(limit.count()) + " ms";
            return UniqueFd();
        }
        std::this_thread::sleep_for(poll_interval);
    }
}

UniqueFd lock_role(const std::string &pin_folder, PlaneRole role, std::string &why)
{
    const std::string path = pin_folder + (role == PlaneRole::agent ? "/agent" : "/sides");
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
        why = path + ": cannot be made: " + error_text(errno);
        return UniqueFd();
    }
    UniqueFd lock = open_folder(AT_FDCWD, path.c_str());
    if (lock && flock(lock.get(), LOCK_EX | LOCK_NB) == 0) {
        return lock;
    }
    why = errno != EWOULDBLOCK       ? path + ": cannot be locked: " + error_text(errno)
          : role == PlaneRole::agent ? pin_folder + ": another agent controls this plane"
                                     : pin_folder + ": another process reads the events of this plane";
    return UniqueFd();
}

uint64_t this_network()
{
    const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    uint64_t cookie = 0;
    socklen_t size = sizeof cookie;
    return getsockopt(socket.get(), SOL_SOCKET, SO_NETNS_COOKIE, &cookie, &size) == 0 ? cookie : 0;
}

uint64_t network_of_pins(const std::string &pin_folder)
{
    const auto names = names_with(pin_folder, network_prefix);
    return names.empty() ? 0 : std::strtoull(names.front().c_str() + std::strlen(network_prefix), nullptr, 10);
}

void set_network_of_pins(const std::string &pin_folder, uint64_t network)
{
    const std::filesystem::path folder = pin_folder;
    const std::string wanted = network_prefix + std::to_string(network);
    for (const std::string &name : names_with(pin_folder, network_prefix)) {
        if (name != wanted) {
            rmdir((folder / name).c_str());
        }
    }
    if (network != 0) {
        mkdir((folder / wanted).c_str(), 0700);
    }
}

std::vector<std::string> layouts_of(const std::string &pin_folder)
{
    return names_with(pin_folder, layout_prefix);
}

bool remove_pins_of(const std::string &pin_folder, const std::string &folder, std::span<const std::string> names,
                    std::string &why)
{
    const UniqueFd parent = open_folder(AT_FDCWD, pin_folder.c_str());
    const UniqueFd open = open_folder(parent.get(), folder.c_str());
    if (!open) {
        if (errno == ENOENT) {
            return true;
        }
        why = pin_folder + "/" + folder + ": " + error_text(errno);
        return false;
    }
    for (const std::string &name : names) {
        if (unlinkat(open.get(), name.c_str(), 0) != 0 && errno != ENOENT) {
            why = (std::filesystem::path(pin_folder) / folder / name).string() +
                  ": cannot be removed: " + error_text(errno);
            return false;
        }
    }
    if (unlinkat(parent.get(), folder.c_str(), AT_REMOVEDIR) != 0 && errno != ENOTEMPTY) {
        why = pin_folder + "/" + folder + ": cannot be removed: " + error_text(errno);
        return false;
    }
    return true;
}

bool remove_pins(const std::string &pin_folder, std::span<const std::string> names, bool &removed, std::string &why)
{
    std::vector<std::string> folders = layouts_of(pin_folder);
    folders.push_back("unfinished");
    for (const std::string &folder : folders) {
        if (!remove_pins_of(pin_folder, folder, names, why)) {
            return false;
        }
    }
    set_network_of_pins(pin_folder, 0);
    for (const char *role : {"/agent", "/sides"}) {
        rmdir((pin_folder + role).c_str());
    }
    removed = rmdir(pin_folder.c_str()) == 0;
    if (!removed && errno != ENOTEMPTY && errno != EBUSY) { // a mount point stays
        why = pin_folder + ": cannot be removed: " + error_text(errno);
        return false;
    }
    return true;
}

} // namespace vvl::fp
