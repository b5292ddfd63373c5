// Loading, pinning and taking over.
#include "platform/fp/ebpf/kernel.h"

#include "platform/base/log.h"
#include "platform/fp/ebpf/vvlan.skel.h"

#include <array>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/magic.h>
#include <memory>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace vvl::fp
{
namespace
{

constexpr const char *usual_bpffs = "/sys/fs/bpf";
constexpr uint32_t rules_max = VV_RULES_MAX;

// A pinned object: its name in the folder, and where its descriptor is kept.
struct Pin {
    const char *name;
    UniqueFd KernelSide::*fd;
};

constexpr Pin map_pins[] = {
    {"globals", &KernelSide::globals},
    {"rules", &KernelSide::rules},
    {"seen", &KernelSide::seen},
    {"cache", &KernelSide::cache},
    {"port_counters", &KernelSide::port_counters},
    {"ace_counters", &KernelSide::ace_counters},
    {"events", &KernelSide::events},
};
constexpr Pin program_pins[] = {{"ingress", &KernelSide::ingress}, {"egress", &KernelSide::egress}};

// What libbpf and the kernel's verifier said last, for the reason of a failure.
std::string last_words;

int keep_words(enum libbpf_print_level level, const char *format, va_list arguments)
{
    if (level == LIBBPF_WARN) {
        std::array<char, 1024> line{};
        std::vsnprintf(line.data(), line.size(), format, arguments);
        last_words = line.data();
        while (!last_words.empty() && last_words.back() == '\n') {
            last_words.pop_back();
        }
    }
    return 0;
}

struct SkeletonEnd {
    void operator()(vvlan_bpf *skeleton) const { vvlan_bpf__destroy(skeleton); }
};
using Skeleton = std::unique_ptr<vvlan_bpf, SkeletonEnd>;

std::string layout_folder(const std::string &pin_folder)
{
    return pin_folder + "/layout-" + std::to_string(VV_LAYOUT);
}

// FNV-1a, 64 bits, over the object file of the programs.
uint64_t this_build()
{
    size_t size = 0;
    const auto *bytes = static_cast<const uint8_t *>(vvlan_bpf__elf_bytes(&size));
    uint64_t hash = 0xcbf29ce484222325;
    for (size_t i = 0; i < size; i++) {
        hash = (hash ^ bytes[i]) * 0x100000001b3;
    }
    return hash;
}

std::array<bpf_map *, std::size(map_pins)> maps_of(const vvlan_bpf &skeleton)
{
    const auto &maps = skeleton.maps;
    return {maps.bss, maps.rules, maps.seen, maps.cache, maps.port_counters, maps.ace_counters, maps.events};
}

// Loads the programs; around the maps of side where it has them already.
Skeleton load(const KernelSide *side, std::string &why)
{
    last_words.clear();
    Skeleton skeleton(vvlan_bpf__open());
    if (skeleton == nullptr) {
        why = "eBPF programs: cannot be read: " + error_text(errno);
        return nullptr;
    }
    const auto maps = maps_of(*skeleton);
    for (size_t i = 0; side != nullptr && i < maps.size(); i++) {
        if (const int rv = bpf_map__reuse_fd(maps[i], (side->*map_pins[i].fd).get()); rv != 0) {
            why = std::string("eBPF map ") + map_pins[i].name + ": cannot be taken over: " + error_text(rv);
            return nullptr;
        }
    }
    if (const int rv = vvlan_bpf__load(skeleton.get()); rv != 0) {
        why = "eBPF programs: the kernel does not take them: " + error_text(rv) +
              (rv == -EPERM ? " (CAP_BPF and CAP_NET_ADMIN are needed)" : " (" + last_words + ")");
        return nullptr;
    }
    return skeleton;
}

bool pin(int fd, const std::string &path, std::string &why)
{
    const int rv = bpf_obj_pin(fd, path.c_str());
    if (rv != 0) {
        why = path + ": cannot be pinned: " + error_text(rv);
    }
    return rv == 0;
}

void empty_folder(const std::string &path)
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

bool make_anew(const std::string &pin_folder, std::string &why)
{
    const Skeleton skeleton = load(nullptr, why);
    if (skeleton == nullptr) {
        return false;
    }
    vv_shared &shared = skeleton->bss->vv;
    shared.magic = VV_MAGIC;
    shared.layout = VV_LAYOUT;
    shared.build = this_build();
    const std::string unfinished = pin_folder + "/unfinished";
    empty_folder(unfinished);
    if (mkdir(unfinished.c_str(), 0700) != 0) {
        why = unfinished + ": cannot be made: " + error_text(errno);
        return false;
    }
    const auto maps = maps_of(*skeleton);
    for (size_t i = 0; i < maps.size(); i++) {
        if (!pin(bpf_map__fd(maps[i]), unfinished + "/" + map_pins[i].name, why)) {
            return false;
        }
    }
    if (!pin(bpf_program__fd(skeleton->progs.vvlan_ingress), unfinished + "/ingress", why) ||
        !pin(bpf_program__fd(skeleton->progs.vvlan_egress), unfinished + "/egress", why)) {
        return false;
    }
    if (rename(unfinished.c_str(), layout_folder(pin_folder).c_str()) != 0) {
        why = layout_folder(pin_folder) + ": cannot be made: " + error_text(errno);
        return false;
    }
    return true;
}

// Puts the programs of this build beside the maps that are there.
bool renew_programs(KernelSide &side, std::string &why)
{
    const Skeleton skeleton = load(&side, why);
    if (skeleton == nullptr) {
        return false;
    }
    const std::pair<const Pin &, int> programs[] = {
        {program_pins[0], bpf_program__fd(skeleton->progs.vvlan_ingress)},
        {program_pins[1], bpf_program__fd(skeleton->progs.vvlan_egress)},
    };
    for (const auto &[program, fd] : programs) {
        const std::string path = side.folder + "/" + program.name;
        const std::string fresh = path + "-new"; // a BPF file system takes no dots
        unlink(fresh.c_str());
        if (!pin(fd, fresh, why)) {
            return false;
        }
        if (rename(fresh.c_str(), path.c_str()) != 0) {
            why = path + ": cannot be replaced: " + error_text(errno);
            return false;
        }
        side.*program.fd = UniqueFd(bpf_obj_get(path.c_str()));
        side.program_ids.push_back(id_of_program(fd));
    }
    side.shared().build = this_build();
    log_line(LogLevel::info, "eBPF programs: replaced by those of this version");
    return true;
}

bool open_pins(KernelSide &side, bool writable, std::string &why)
{
    const auto open_one = [&](const Pin &object) {
        const std::string path = side.folder + "/" + object.name;
        side.*object.fd = UniqueFd(bpf_obj_get(path.c_str()));
        if (!(side.*object.fd)) {
            why = path + ": cannot be opened: " + error_text(errno);
        }
        return static_cast<bool>(side.*object.fd);
    };
    for (const Pin &object : map_pins) {
        if (!open_one(object)) {
            return false;
        }
    }
    for (const Pin &object : program_pins) {
        if (!open_one(object)) {
            return false;
        }
        side.program_ids.push_back(id_of_program((side.*object.fd).get()));
    }
    if (!side.globals_memory.map(side.globals.get(), sizeof(vv_shared), writable) ||
        !side.rules_memory.map(side.rules.get(), rules_max * sizeof(vv_rule), writable)) {
        why = side.folder + ": its maps cannot be mapped: " + error_text(errno);
        return false;
    }
    if (side.shared().magic != VV_MAGIC || side.shared().layout != VV_LAYOUT) {
        why = side.folder + "/globals: not what this plane has pinned";
        return false;
    }
    return true;
}

bool is_bpffs(const std::string &path)
{
    struct statfs info {
    };
    return statfs(path.c_str(), &info) == 0 && info.f_type == BPF_FS_MAGIC;
}

} // namespace

UniqueFd::~UniqueFd()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

SharedMemory::~SharedMemory()
{
    if (address_ != nullptr) {
        munmap(address_, size_);
    }
}

bool SharedMemory::map(int fd, size_t size, bool writable)
{
    void *address = mmap(nullptr, size, writable ? PROT_READ | PROT_WRITE : PROT_READ, MAP_SHARED, fd, 0);
    address_ = address == MAP_FAILED ? nullptr : address;
    size_ = size;
    return address_ != nullptr;
}

uint32_t id_of_program(int fd)
{
    bpf_prog_info info{};
    uint32_t size = sizeof info;
    return bpf_obj_get_info_by_fd(fd, &info, &size) == 0 ? info.id : 0;
}

std::string error_text(int error)
{
    return std::strerror(std::abs(error));
}

bool prepare_pin_folder(const std::string &pin_folder, std::string &why)
{
    std::error_code failed;
    if (pin_folder.rfind(usual_bpffs, 0) == 0 && !is_bpffs(usual_bpffs) &&
        mount("bpf", usual_bpffs, "bpf", 0, "mode=0700") != 0) {
        why = std::string(usual_bpffs) + ": no BPF file system is mounted, and it cannot be: " + error_text(errno);
        return false;
    }
    std::filesystem::create_directories(pin_folder, failed);
    if (failed) {
        why = pin_folder + ": cannot be made: " + failed.message();
        why += pin_folder.find('.') != std::string::npos ? " (a BPF file system takes no dots)" : "";
        return false;
    }
    if (!is_bpffs(pin_folder)) {
        why = pin_folder + ": not on a BPF file system (mount -t bpf)";
        return false;
    }
    return true;
}

bool open_kernel_side(const std::string &pin_folder, KernelSide &side, std::string &why)
{
    libbpf_set_print(keep_words);
    if (!prepare_pin_folder(pin_folder, why)) {
        return false;
    }
    // Two processes of one switch that start together open it one after the other.
    const UniqueFd turn = take_turn(pin_folder, why);
    if (!turn) {
        return false;
    }
    side.folder = layout_folder(pin_folder);
    if (access(side.folder.c_str(), F_OK) != 0 && !make_anew(pin_folder, why)) {
        return false;
    }
    if (!open_pins(side, true, why)) {
        return false;
    }
    return side.shared().build == this_build() || renew_programs(side, why);
}

bool view_kernel_side(const std::string &pin_folder, KernelSide &side, std::string &why)
{
    libbpf_set_print(keep_words);
    side.folder = layout_folder(pin_folder);
    why.clear();
    return access(side.folder.c_str(), F_OK) == 0 && open_pins(side, false, why);
}

UniqueFd take_turn(const std::string &pin_folder, std::string &why)
{
    UniqueFd folder(open(pin_folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder || flock(folder.get(), LOCK_EX) != 0) {
        why = pin_folder + ": cannot be locked: " + error_text(errno);
        return UniqueFd();
    }
    return folder;
}

bool lock_states(KernelSide &side)
{
    if (side.folder_lock) {
        return true;
    }
    UniqueFd lock(open(side.folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock || flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        return false;
    }
    side.folder_lock = std::move(lock);
    return true;
}

bool remove_pins(const std::string &pin_folder, std::string &why)
{
    std::error_code failed;
    std::filesystem::remove_all(pin_folder, failed);
    if (failed) {
        why = pin_folder + ": cannot be removed: " + failed.message();
    }
    return !failed;
}

bool try_programs(std::string &why)
{
    libbpf_set_print(keep_words);
    return load(nullptr, why) != nullptr;
}

} // namespace vvl::fp
