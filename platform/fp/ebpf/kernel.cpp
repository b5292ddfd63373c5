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
#include <filesystem>
#include <memory>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vvl::fp
{
namespace
{

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

// Where a program is pinned until it takes the place of its predecessor.
std::string fresh_name(const Pin &program)
{
    return std::string(program.name) + "-new"; // a BPF file system takes no dots
}

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
    const auto names = names_of_pins();
    if (!remove_pins_of(pin_folder, "unfinished", names, why)) {
        return false;
    }
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
        const std::string fresh = side.folder + "/" + fresh_name(program);
        unlink(fresh.c_str());
        if (!pin(fd, fresh, why)) {
            return false;
        }
        if (rename(fresh.c_str(), path.c_str()) != 0) {
            why = path + ": cannot be replaced: " + error_text(errno);
            return false;
        }
        side.*program.fd = UniqueFd(bpf_obj_get(path.c_str()));
    }
    side.shared().build = this_build();
    log_line(LogLevel::info, "eBPF programs: replaced by those of this version");
    return true;
}

bool lock_roles(const EbpfOptions &options, KernelSide &side, std::string &why)
{
    if (options.is_agent && !(side.agent_lock = lock_role(options.pin_folder, PlaneRole::agent, why))) {
        return false;
    }
    return !options.is_sides || (side.sides_lock = lock_role(options.pin_folder, PlaneRole::sides, why));
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

} // namespace

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

std::vector<std::string> names_of_pins()
{
    std::vector<std::string> names;
    for (const Pin &map : map_pins) {
        names.emplace_back(map.name);
    }
    for (const Pin &program : program_pins) {
        names.emplace_back(program.name);
        names.push_back(fresh_name(program));
    }
    return names;
}

std::vector<uint32_t> programs_of(const std::string &layout_folder)
{
    const std::filesystem::path folder = layout_folder;
    std::vector<uint32_t> ids;
    for (const Pin &program : program_pins) {
        for (const std::string &name : {std::string(program.name), fresh_name(program)}) {
            if (const UniqueFd fd(bpf_obj_get((folder / name).c_str())); fd) {
                ids.push_back(id_of_program(fd.get()));
            }
        }
    }
    return ids;
}

bool open_kernel_side(const EbpfOptions &options, KernelSide &side, std::string &why)
{
    libbpf_set_print(keep_words);
    PinFolderWork ignored;
    if (!prepare_pin_folder(options.pin_folder, ignored, why)) {
        return false;
    }
    // Two processes of one switch that start together open it one after the other.
    const UniqueFd turn = take_turn(options.pin_folder, why);
    if (!turn || !lock_roles(options, side, why)) {
        return false;
    }
    side.folder = layout_folder(options.pin_folder);
    const bool may_make = options.is_agent || options.is_sides;
    if (may_make && access(side.folder.c_str(), F_OK) != 0 && !make_anew(options.pin_folder, why)) {
        return false;
    }
    if (!open_pins(side, true, why)) {
        return false;
    }
    return !options.is_agent || side.shared().build == this_build() || renew_programs(side, why);
}

bool view_kernel_side(const std::string &pin_folder, KernelSide &side, std::string &why)
{
    libbpf_set_print(keep_words);
    side.folder = layout_folder(pin_folder);
    if (check_pin_folder(pin_folder, why) != PinFolder::usable) {
        return false;
    }
    return access(side.folder.c_str(), F_OK) == 0 && open_pins(side, false, why);
}

bool try_programs(std::string &why)
{
    libbpf_set_print(keep_words);
    return load(nullptr, why) != nullptr;
}

} // namespace vvl::fp
