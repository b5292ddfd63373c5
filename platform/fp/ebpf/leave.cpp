#include "platform/fp/ebpf/leave.h"

#include "platform/base/log.h"
#include "platform/fp/ebpf/attach.h"
#include "platform/fp/ebpf/kernel.h"

#include <algorithm>
#include <filesystem>
#include <functional>
#include <net/if.h>
#include <set>

namespace vvl::fp
{
namespace
{

void for_each_interface(const std::function<void(uint32_t ifindex, const std::string &name)> &each)
{
    struct if_nameindex *const links = if_nameindex();
    for (const auto *link = links; link != nullptr && link->if_index != 0; link++) {
        each(link->if_index, link->if_name);
    }
    if_freenameindex(links);
}

// What has to be held while the plane is taken away.
struct Claim {
    UniqueFd turn;
    UniqueFd agent;
    UniqueFd sides;
};

bool claim(const std::string &pin_folder, Claim &claim, std::string &why)
{
    const uint64_t network = network_of_pins(pin_folder);
    if (network != 0 && network != this_network()) {
        why = pin_folder + ": its interfaces are in another network namespace; nothing was detached";
        return false;
    }
    claim.turn = take_turn(pin_folder, why);
    if (!claim.turn) {
        return false;
    }
    claim.agent = lock_role(pin_folder, PlaneRole::agent, why);
    if (claim.agent) {
        claim.sides = lock_role(pin_folder, PlaneRole::sides, why);
    }
    if (!claim.sides) {
        why += "; nothing was detached";
    }
    return static_cast<bool>(claim.sides);
}

// The interfaces whose queue discipline is ours.
std::set<uint32_t> made_by_us(const std::string &pin_folder)
{
    KernelSide side;
    std::string ignored; // programs are known by their names where pins are missing or damaged
    std::set<uint32_t> made;
    if (view_kernel_side(pin_folder, side, ignored)) {
        for (const vv_port &port : side.shared().ports) {
            if (port.ifindex != 0 && (port.flags & VV_PORT_MADE_CLSACT)) {
                made.insert(port.ifindex);
            }
        }
    }
    return made;
}

bool detach_all(const std::set<uint32_t> &made, std::vector<std::string> &report, std::string &why)
{
    for_each_interface([&](uint32_t ifindex, const std::string &name) {
        std::string reason;
        const Detached result = detach_programs(ifindex, made.contains(ifindex), reason);
        if (result == Detached::failed && why.empty()) {
            why = name + ": " + reason;
        } else if (result == Detached::programs) {
            report.push_back(name + ": programs detached");
        } else if (result == Detached::programs_and_clsact) {
            report.push_back(name + ": programs detached, clsact removed");
        }
    });
    return why.empty();
}

} // namespace

void leave_other_layouts(const std::string &pin_folder, std::span<const PlanePort> ports)
{
    const std::string current = "layout-" + std::to_string(VV_LAYOUT);
    std::string why;
    const UniqueFd turn = take_turn(pin_folder, why);
    for (const std::string &layout : layouts_of(pin_folder)) {
        if (!turn || layout == current) {
            continue;
        }
        const std::vector<uint32_t> programs = programs_of(std::filesystem::path(pin_folder) / layout);
        bool is_in_use = false;
        for_each_interface([&](uint32_t ifindex, const std::string &name) {
            const auto attached = programs_at(ifindex);
            if (std::ranges::find_first_of(attached, programs) == attached.end()) {
                return;
            }
            const bool is_kept = std::ranges::find(ports, name, &PlanePort::interface) != ports.end();
            is_in_use |= is_kept || detach_programs(ifindex, false, why) == Detached::failed;
            if (!is_kept) {
                log_line(LogLevel::info, name + ": not in the configuration any more; detached");
            }
        });
        if (!is_in_use && !remove_pins_of(pin_folder, layout, names_of_pins(), why)) {
            log_line(LogLevel::error, why);
        }
    }
}

bool ebpf_detach(const EbpfOptions &options, std::vector<std::string> &report, std::string &why)
{
    const PinFolder state = check_pin_folder(options.pin_folder, why);
    Claim held;
    if (state == PinFolder::refused || (state == PinFolder::usable && !claim(options.pin_folder, held, why))) {
        return false;
    }
    why.clear();
    const auto made = state == PinFolder::usable ? made_by_us(options.pin_folder) : std::set<uint32_t>{};
    if (!detach_all(made, report, why) || state == PinFolder::missing) {
        return why.empty();
    }
    bool removed = false;
    if (!remove_pins(options.pin_folder, names_of_pins(), removed, why)) {
        return false;
    }
    report.push_back(options.pin_folder +
                     (removed ? ": pins removed" : ": pins removed; the folder stays, it is in use"));
    return true;
}

} // namespace vvl::fp
