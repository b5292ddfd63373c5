// The agent's half of the plane in the kernel. The state that the kernel works
// from is in its maps alone; this process keeps nothing that a restart would lose.
#include "platform/fp/ebpf/plane_ebpf.h"

#include "platform/base/log.h"
#include "platform/fp/ebpf/addresses.h"
#include "platform/fp/ebpf/attach.h"
#include "platform/fp/ebpf/counters.h"
#include "platform/fp/ebpf/events.h"
#include "platform/fp/ebpf/kernel.h"
#include "platform/fp/ebpf/states.h"
#include "platform/fp/error.h"

#include <cerrno>
#include <filesystem>
#include <net/if.h>
#include <optional>
#include <set>

namespace vvl::fp
{
namespace
{

// Agent and sides may be processes of their own, each with flags of its own.
void set_flag(vv_port &port, uint32_t flag, bool on)
{
    on ? __atomic_fetch_or(&port.flags, flag, __ATOMIC_RELAXED)
       : __atomic_fetch_and(&port.flags, ~flag, __ATOMIC_RELAXED);
}

std::string name_of(const PlanePort &port)
{
    return "port " + std::to_string(port.phyid) + " (" + port.interface + ")";
}

} // namespace

struct EbpfPlane::Impl {
    explicit Impl(std::string folder) : pin_folder(std::move(folder)) {}

    const std::string pin_folder;
    KernelSide side;
    // Made when the kernel's side is open.
    std::optional<States> states;
    std::optional<Addresses> addresses;
    std::optional<EventReader> reader;

    uint32_t port_for(uint32_t phyid, const std::map<uint32_t, uint8_t> &binding = {});
    vv_port &port(uint32_t index) { return side.shared().ports[index]; }
    bool may_write();
};

// One process writes the states; a second agent must not work against the first.
bool EbpfPlane::Impl::may_write()
{
    const bool mine = lock_states(side);
    if (!mine) {
        log_line(LogLevel::error, side.folder + ": another agent controls this plane");
    }
    return mine;
}

// The index of a port, made where it is new; VV_PORTS_MAX where all are in use.
// binding: of the state that is about to be installed.
uint32_t EbpfPlane::Impl::port_for(uint32_t phyid, const std::map<uint32_t, uint8_t> &binding)
{
    if (const uint32_t known = states->find_port(phyid); known < VV_PORTS_MAX) {
        return known;
    }
    std::string why;
    const UniqueFd turn = take_turn(pin_folder, why);
    if (!turn) {
        log_line(LogLevel::error, why);
    }
    return states->port_for(phyid, [&](uint32_t other) { return binding.contains(other); });
}

EbpfPlane::EbpfPlane(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

EbpfPlane::~EbpfPlane() = default;

std::unique_ptr<EbpfPlane> EbpfPlane::open(Loop &loop, const EbpfOptions &options, std::string &why)
{
    auto impl = std::make_unique<Impl>(options.pin_folder);
    if (!open_kernel_side(options.pin_folder, impl->side, why)) {
        return nullptr;
    }
    impl->states.emplace(&impl->side.shared(), impl->side.all_rules());
    impl->addresses.emplace(impl->side.seen.get(), impl->side.shared());
    impl->reader.emplace(loop, impl->side, *impl->addresses);
    return std::unique_ptr<EbpfPlane>(new EbpfPlane(std::move(impl)));
}

int EbpfPlane::install(const PlaneState &state)
{
    std::string why;
    if (!check_state(state, why)) {
        return error_invalid;
    }
    if (!impl_->may_write()) {
        return -EBUSY;
    }
    for (const auto &[phyid, acls] : state.binding) {
        if (impl_->port_for(phyid, state.binding) >= VV_PORTS_MAX) {
            return error_full;
        }
    }
    return impl_->states->install(state);
}

int EbpfPlane::set_trap(uint32_t phyid, bool on)
{
    const uint32_t index = impl_->port_for(phyid);
    if (index >= VV_PORTS_MAX) {
        return error_full;
    }
    vv_port &port = impl_->port(index);
    port.trap_count = 0;
    set_flag(port, VV_PORT_TRAP, on);
    return 0;
}

void EbpfPlane::forget(uint16_t vlan, const Mac &mac)
{
    impl_->addresses->forget(vlan, to_u64(mac.data()));
}

PlaneState EbpfPlane::installed() const
{
    return impl_->states->installed();
}

void EbpfPlane::set_events(PlaneEvents *events)
{
    std::string why;
    if (events == nullptr) {
        impl_->reader->stop();
    } else if (!impl_->reader->start(*events, why)) {
        log_line(LogLevel::error, why);
    }
}

bool EbpfPlane::add_port(const PlanePort &port, std::string &why)
{
    if (port.pvid == 0 || port.pvid > vid_max) {
        why = "port " + std::to_string(port.phyid) + ": PVID " + std::to_string(port.pvid) + " is not 1 to 4094";
        return false;
    }
    const uint32_t ifindex = if_nametoindex(port.interface.c_str());
    if (ifindex == 0) {
        why = name_of(port) + ": no such interface";
        return false;
    }
    const uint32_t index = impl_->port_for(port.phyid);
    if (index >= VV_PORTS_MAX) {
        why = name_of(port) + ": the plane has " + std::to_string(VV_PORTS_MAX) + " ports already";
        return false;
    }
    impl_->states->set_pvid(index, port.pvid, port.uplink);
    limit_addresses(impl_->side.shared(), index, port.uplink);
    if (!impl_->states->place_interface(index, ifindex)) {
        why = name_of(port) + ": no place is left for interface index " + std::to_string(ifindex);
        return false;
    }
    bool made_clsact = false;
    if (!attach_programs(ifindex, impl_->side, made_clsact, why)) {
        why = name_of(port) + ": " + why;
        impl_->states->remove_interface(index);
        return false;
    }
    if (made_clsact) {
        set_flag(impl_->port(index), VV_PORT_MADE_CLSACT, true);
    }
    return true;
}

void EbpfPlane::set_link(uint32_t phyid, bool up)
{
    const uint32_t index = impl_->states->find_port(phyid);
    if (!up && index < VV_PORTS_MAX) {
        impl_->addresses->forget_port(index);
    }
}

void EbpfPlane::remove_port(uint32_t phyid)
{
    const uint32_t index = impl_->states->find_port(phyid);
    if (index < VV_PORTS_MAX) {
        set_link(phyid, false);
        impl_->states->remove_interface(index);
        set_flag(impl_->port(index), VV_PORT_MADE_CLSACT, false);
    }
}

PortCounters EbpfPlane::counters(uint32_t phyid) const
{
    return user_counters(read_port_counters(impl_->side, impl_->states->find_port(phyid)));
}

uint64_t EbpfPlane::events_lost(uint32_t phyid) const
{
    return read_port_counters(impl_->side, impl_->states->find_port(phyid)).events_lost;
}

uint64_t EbpfPlane::ace_frames(Acl acl, uint64_t id) const
{
    return read_ace_counter(impl_->side, acl, id);
}

bool ebpf_detach(const EbpfOptions &options, std::vector<std::string> &report, std::string &why)
{
    KernelSide side; // empty where pins are missing or damaged: programs are known by their names then
    std::string ignored;
    const bool is_pinned = view_kernel_side(options.pin_folder, side, ignored);
    std::set<uint32_t> made; // interfaces whose queue discipline is ours
    for (uint32_t index = 0; is_pinned && index < VV_PORTS_MAX; index++) {
        const vv_port &port = side.shared().ports[index];
        if (port.ifindex != 0 && (port.flags & VV_PORT_MADE_CLSACT)) {
            made.insert(port.ifindex);
        }
    }
    bool all_good = true;
    struct if_nameindex *const links = if_nameindex();
    for (const auto *link = links; link != nullptr && link->if_index != 0; link++) {
        std::string reason;
        const Detached result = detach_programs(link->if_index, side, made.contains(link->if_index), reason);
        if (result == Detached::failed) {
            why = std::string(link->if_name) + ": " + reason;
            all_good = false;
        } else if (result != Detached::nothing) {
            report.push_back(std::string(link->if_name) + (result == Detached::programs
                                                               ? ": programs detached"
                                                               : ": programs detached, clsact removed"));
        }
    }
    if_freenameindex(links);
    if (all_good && std::filesystem::exists(options.pin_folder)) {
        all_good = remove_pins(options.pin_folder, why);
        report.push_back(options.pin_folder + ": pins removed");
    }
    return all_good;
}

} // namespace vvl::fp
