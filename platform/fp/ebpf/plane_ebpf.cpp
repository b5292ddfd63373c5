// The agent's half of the plane in the kernel. The state that the kernel works
// from is in its maps alone; this process keeps nothing that a restart would lose.
#include "platform/fp/ebpf/plane_ebpf.h"

#include "platform/base/log.h"
#include "platform/fp/ebpf/addresses.h"
#include "platform/fp/ebpf/attach.h"
#include "platform/fp/ebpf/counters.h"
#include "platform/fp/ebpf/events.h"
#include "platform/fp/ebpf/kernel.h"
#include "platform/fp/ebpf/leave.h"
#include "platform/fp/ebpf/states.h"
#include "platform/fp/error.h"

#include <cerrno>
#include <net/if.h>
#include <optional>
#include <set>
#include <utility>

namespace vvl::fp
{
namespace
{

constexpr std::chrono::milliseconds turn_limit_of_loop{1000}; // other work waits meanwhile

// Agent and sides may be processes of their own, each with flags of its own.
void set_flag(vv_port &port, uint32_t flag, bool on)
{
    on ? __atomic_fetch_or(&port.flags, flag, __ATOMIC_RELAXED)
       : __atomic_fetch_and(&port.flags, ~flag, __ATOMIC_RELAXED);
}

} // namespace

struct EbpfPlane::Impl {
    explicit Impl(EbpfOptions o) : options(std::move(o)) {}

    const EbpfOptions options;
    KernelSide side;
    // Made when the kernel's side is open.
    std::optional<States> states;
    std::optional<Addresses> addresses;
    std::optional<EventReader> reader;

    uint32_t port_for(uint32_t phyid, const std::map<uint32_t, uint8_t> &binding = {});
    vv_port &port(uint32_t index) { return side.shared().ports[index]; }
    void take_over_network();
    void leave_interface(uint32_t index);
};

// The index of a port, made where it is new; VV_PORTS_MAX where all are in use.
// binding: of the state that is about to be installed.
uint32_t EbpfPlane::Impl::port_for(uint32_t phyid, const std::map<uint32_t, uint8_t> &binding)
{
    if (const uint32_t known = states->find_port(phyid); known < VV_PORTS_MAX) {
        return known;
    }
    std::string why;
    const UniqueFd turn = take_turn(options.pin_folder, why, turn_limit_of_loop);
    if (!turn) {
        log_line(LogLevel::error, why);
        return VV_PORTS_MAX;
    }
    return states->port_for(phyid, [&](uint32_t other) { return binding.contains(other); });
}

EbpfPlane::EbpfPlane(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

EbpfPlane::~EbpfPlane() = default;

std::unique_ptr<EbpfPlane> EbpfPlane::open(Loop &loop, const EbpfOptions &options, std::string &why)
{
    auto impl = std::make_unique<Impl>(options);
    if (!open_kernel_side(options, impl->side, why)) {
        return nullptr;
    }
    impl->states.emplace(&impl->side.shared(), impl->side.all_rules());
    impl->addresses.emplace(impl->side.seen.get(), impl->side.shared());
    impl->reader.emplace(loop, impl->side, *impl->addresses);
    if (options.is_agent) {
        impl->take_over_network();
    }
    return std::unique_ptr<EbpfPlane>(new EbpfPlane(std::move(impl)));
}

int EbpfPlane::install(const PlaneState &state)
{
    std::string why;
    if (!check_state(state, why)) {
        return error_invalid;
    }
    if (!impl_->side.agent_lock) {
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
    } else if (!impl_->side.sides_lock) {
        log_line(LogLevel::error, impl_->side.folder + ": this process does not read the events");
    } else if (!impl_->reader->start(*events, why)) {
        log_line(LogLevel::error, why);
    }
}

bool EbpfPlane::add_port(const PlanePort &port, std::string &why)
{
    if (port.pvid == 0 || port.pvid > vid_max) {
        why = name_of(port) + ": PVID " + std::to_string(port.pvid) + " is not 1 to 4094";
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
    const bool had_interface = impl_->port(index).ifindex == ifindex;
    name_port(impl_->port(index), port);
    impl_->states->set_pvid(index, port.pvid, port.uplink);
    limit_addresses(impl_->side.shared(), index, port.uplink);
    if (!impl_->states->place_interface(index, ifindex)) {
        why = name_of(port) + ": no place is left for interface index " + std::to_string(ifindex);
        return false;
    }
    bool made_clsact = false;
    if (!attach_programs(ifindex, impl_->side, made_clsact, why)) {
        why = name_of(port) + ": " + why;
        if (!had_interface) { // what an earlier agent attached goes on
            impl_->states->remove_interface(index);
        }
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

PortHealth EbpfPlane::look_after(uint32_t phyid, std::string &what)
{
    const uint32_t index = impl_->states->find_port(phyid);
    const uint32_t ifindex = index < VV_PORTS_MAX ? impl_->port(index).ifindex : 0;
    if (ifindex == 0) {
        return PortHealth::served; // its interface is gone; see remove_port()
    }
    const Standing standing = look_at_programs(ifindex, impl_->side, what);
    if (standing != Standing::lost) {
        return standing == Standing::complete ? PortHealth::served : PortHealth::not_served;
    }
    bool made_clsact = false;
    std::string why;
    if (!attach_programs(ifindex, impl_->side, made_clsact, why)) {
        what += "; " + why;
        return PortHealth::not_served;
    }
    if (made_clsact) {
        what = "the clsact queue discipline was removed";
        set_flag(impl_->port(index), VV_PORT_MADE_CLSACT, true);
    }
    return PortHealth::restored;
}

// The interfaces of another network namespace have other indexes; the programs
// must not take one of this namespace for one of them.
void EbpfPlane::Impl::take_over_network()
{
    const uint64_t before = network_of_pins(options.pin_folder);
    const uint64_t here = this_network();
    if (before != 0 && here != 0 && before != here) {
        log_line(LogLevel::warn, options.pin_folder + ": taken over from another network namespace");
        for (uint32_t index = 0; index < VV_PORTS_MAX; index++) {
            states->remove_interface(index);
            set_flag(port(index), VV_PORT_MADE_CLSACT, false);
        }
    }
    std::string why;
    if (const UniqueFd turn = take_turn(options.pin_folder, why); turn) {
        set_network_of_pins(options.pin_folder, here);
    }
}

// Takes the programs off the interface of a port.
void EbpfPlane::Impl::leave_interface(uint32_t index)
{
    vv_port &entry = port(index);
    std::string why;
    const bool made_clsact = (entry.flags & VV_PORT_MADE_CLSACT) != 0;
    const Detached result = detach_programs(entry.ifindex, made_clsact, why);
    const std::string name = name_of(entry);
    if (result == Detached::failed) {
        log_line(LogLevel::error, name + ": not in the configuration any more; " + why);
    } else {
        log_line(LogLevel::info, name + ": not in the configuration any more; detached");
    }
    states->remove_interface(index);
    set_flag(entry, VV_PORT_MADE_CLSACT | VV_PORT_TRAP, false);
}

void EbpfPlane::keep_only(std::span<const PlanePort> ports)
{
    std::set<uint32_t> kept;
    for (const PlanePort &port : ports) {
        kept.insert(port.phyid);
        if (const uint32_t index = impl_->port_for(port.phyid); index < VV_PORTS_MAX) {
            name_port(impl_->port(index), port);
        }
    }
    for (uint32_t index = 0; index < VV_PORTS_MAX; index++) {
        vv_port &entry = impl_->port(index);
        if ((entry.flags & VV_PORT_USED) && !kept.contains(entry.phyid)) {
            if (entry.ifindex != 0) {
                impl_->addresses->forget_port(index);
                impl_->leave_interface(index);
            }
            name_port(entry, {});
        }
    }
    leave_other_layouts(impl_->options.pin_folder, ports);
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

} // namespace vvl::fp
