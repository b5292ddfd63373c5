// The agent's half of the plane in the kernel. What the kernel works from is in
// its maps and in them alone; this process keeps nothing that a restart would
// lose.
#include "platform/fp/ebpf/plane_ebpf.h"

#include "platform/base/log.h"
#include "platform/fp/ebpf/addresses.h"
#include "platform/fp/ebpf/attach.h"
#include "platform/fp/ebpf/counters.h"
#include "platform/fp/ebpf/kernel.h"
#include "platform/fp/ebpf/states.h"
#include "platform/fp/error.h"

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <net/if.h>
#include <set>

namespace vvl::fp
{
namespace
{

constexpr uint64_t tick_us = 1'000'000;
constexpr uint32_t events_per_turn_max = 4096; // then other work of the loop has its turn
constexpr uint32_t sweep_interval_ticks = 60;
// An address that the agent did not have forgotten itself, since it died before
// it could, goes after twice the usual aging time of a bridge (IEEE 802.1D: 300 s).
constexpr uint32_t idle_ticks_max = 600;

struct RingEnd {
    void operator()(ring_buffer *ring) const { ring_buffer__free(ring); }
};

// The frame as it was on the wire: the tag that the kernel had taken out is back.
std::vector<uint8_t> whole_frame(const vv_trapped &trapped)
{
    const vv_event &event = trapped.event;
    std::vector<uint8_t> frame(trapped.bytes, trapped.bytes + std::min<size_t>(event.size, sizeof trapped.bytes));
    if (event.tag_type != 0 && frame.size() >= 2 * mac_size) {
        const uint8_t tag[] = {static_cast<uint8_t>(event.tag_type >> 8), static_cast<uint8_t>(event.tag_type),
                               static_cast<uint8_t>(event.tag >> 8), static_cast<uint8_t>(event.tag)};
        frame.insert(frame.begin() + 2 * mac_size, std::begin(tag), std::end(tag));
    }
    return frame;
}

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
    explicit Impl(Loop &the_loop) : loop(the_loop) {}
    ~Impl()
    {
        flush();
        stop_events();
    }
    Impl(const Impl &) = delete;
    Impl &operator=(const Impl &) = delete;

    Loop &loop;
    std::string pin_folder;
    KernelSide side;
    std::unique_ptr<States> states;
    PlaneState in_force;
    PlaneState wanted;             // in force with the end of the current callback
    std::shared_ptr<bool> pending; // a flush is posted; posted tasks look at it weakly
    std::unique_ptr<ring_buffer, RingEnd> ring;
    PlaneEvents *events = nullptr;
    LoopId watch = 0;
    LoopId timer = 0;
    uint32_t events_this_turn = 0;

    uint32_t port_for(uint32_t phyid, const std::map<uint32_t, uint8_t> *binding = nullptr);
    vv_port &port(uint32_t index) { return side.shared().ports[index]; }
    bool may_write();
    int locate_all(const std::map<uint32_t, uint8_t> &binding);
    void flush_later();
    void flush();
    bool start_events(std::string &why);
    void stop_events();
    void consume();
    void tell(const void *record, size_t size);
    void begin_epoch() { __atomic_add_fetch(&side.shared().epoch, 1, __ATOMIC_RELAXED); }
    void arm_tick();
    void tick();
    std::set<uint16_t> pvids() const;
};

// The states belong to one process; a second agent must not work against the first.
bool EbpfPlane::Impl::may_write()
{
    const bool mine = lock_states(side);
    if (!mine) {
        log_line(LogLevel::error, side.folder + ": another agent controls this plane");
    }
    return mine;
}

// The index of a port, made where it is new; VV_PORTS_MAX where all are in use.
// binding: what is about to be wanted, beside what is.
uint32_t EbpfPlane::Impl::port_for(uint32_t phyid, const std::map<uint32_t, uint8_t> *binding)
{
    if (const uint32_t known = states->find_port(phyid); known < VV_PORTS_MAX) {
        return known;
    }
    std::string why;
    const UniqueFd turn = take_turn(pin_folder, why);
    if (!turn) {
        log_line(LogLevel::error, why);
    }
    return states->port_for(phyid, [&](uint32_t other) {
        return wanted.binding.contains(other) || (binding != nullptr && binding->contains(other));
    });
}

// ---- Events ---------------------------------------------------------------

bool EbpfPlane::Impl::start_events(std::string &why)
{
    const auto sample = [](void *self, void *record, size_t size) {
        auto *impl = static_cast<Impl *>(self);
        impl->tell(record, size);
        return ++impl->events_this_turn < events_per_turn_max ? 0 : -ECANCELED;
    };
    ring.reset(ring_buffer__new(side.events.get(), sample, this, nullptr));
    if (ring == nullptr) {
        why = side.folder + "/events: cannot be read: " + error_text(errno);
        return false;
    }
    watch = loop.watch_fd(ring_buffer__epoll_fd(ring.get()), fd_readable, [this](unsigned) { consume(); });
    arm_tick();
    return true;
}

void EbpfPlane::Impl::stop_events()
{
    if (ring == nullptr) {
        return;
    }
    loop.unwatch_fd(watch);
    loop.cancel_timer(timer);
    ring.reset();
}

void EbpfPlane::Impl::consume()
{
    events_this_turn = 0;
    ring_buffer__consume(ring.get());
}

void EbpfPlane::Impl::tell(const void *record, size_t size)
{
    vv_trapped trapped{};
    std::memcpy(&trapped, record, std::min(size, sizeof trapped));
    const vv_event &event = trapped.event;
    if (events == nullptr || event.port >= VV_PORTS_MAX || (port(event.port).flags & VV_PORT_USED) == 0) {
        return;
    }
    const uint32_t phyid = port(event.port).phyid;
    if (event.kind == VV_EVENT_SEEN) {
        events->mac_seen(event.vlan, mac_of(event.mac), phyid);
    } else if (event.kind == VV_EVENT_TRAPPED) {
        events->voice_trapped(phyid, mac_of(event.mac), whole_frame(trapped));
    }
}

void EbpfPlane::Impl::arm_tick()
{
    timer = loop.add_timer(tick_us, [this] { tick(); });
}

void EbpfPlane::Impl::tick()
{
    const uint32_t now = __atomic_add_fetch(&side.shared().tick, 1, __ATOMIC_RELAXED);
    begin_epoch();
    if (now % sweep_interval_ticks == 0) {
        Addresses(side.seen.get()).forget_if([&](const vv_seen &seen) { return now - seen.tick > idle_ticks_max; });
    }
    arm_tick();
}

// ---- The plane ------------------------------------------------------------

int EbpfPlane::Impl::locate_all(const std::map<uint32_t, uint8_t> &binding)
{
    for (const auto &[phyid, acls] : binding) {
        if (port_for(phyid, &binding) >= VV_PORTS_MAX) {
            return error_full;
        }
    }
    return 0;
}

// What an application changes in one callback belongs together: a device that
// is added takes a rule that tags it and one that marks it. Frames come in all
// the while here, so the changes are put into force together.
void EbpfPlane::Impl::flush_later()
{
    if (pending == nullptr) {
        pending = std::make_shared<bool>(true);
        loop.post([this, posted = std::weak_ptr<bool>(pending)] {
            if (!posted.expired()) {
                flush();
            }
        });
    }
}

void EbpfPlane::Impl::flush()
{
    pending.reset();
    if (wanted == in_force) {
        return;
    }
    if (const int code = states->carry_over(in_force, wanted); code != 0) {
        log_line(LogLevel::error, side.folder + ": a change cannot be put into force: " + error_text(code));
        return;
    }
    in_force = wanted;
}

std::set<uint16_t> EbpfPlane::Impl::pvids() const
{
    std::set<uint16_t> all;
    const vv_shared &shared = side.shared();
    for (uint32_t index = 0; index < VV_PORTS_MAX; index++) {
        if (shared.ports[index].flags & VV_PORT_USED) {
            all.insert(VV_BIND_PVID(shared.states[shared.active % VV_STATES].bind[index]));
        }
    }
    return all;
}

EbpfPlane::EbpfPlane(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

EbpfPlane::~EbpfPlane() = default;

std::unique_ptr<EbpfPlane> EbpfPlane::open(Loop &loop, const EbpfOptions &options, std::string &why)
{
    auto impl = std::make_unique<Impl>(loop);
    impl->pin_folder = options.pin_folder;
    if (!open_kernel_side(options.pin_folder, impl->side, why)) {
        return nullptr;
    }
    impl->states = std::make_unique<States>(&impl->side.shared(), impl->side.all_rules());
    impl->wanted = impl->in_force = impl->states->installed();
    return std::unique_ptr<EbpfPlane>(new EbpfPlane(std::move(impl)));
}

int EbpfPlane::set_rules(Acl acl, std::span<const Rule> rules)
{
    std::string why;
    if (!check_rules(rules, why)) {
        return error_invalid;
    }
    if (!impl_->may_write()) {
        return -EBUSY;
    }
    impl_->wanted.rules[static_cast<size_t>(acl)].assign(rules.begin(), rules.end());
    impl_->flush_later();
    return 0;
}

int EbpfPlane::set_binding(uint32_t phyid, uint8_t acls)
{
    if (!impl_->may_write()) {
        return -EBUSY;
    }
    if (impl_->port_for(phyid) >= VV_PORTS_MAX) {
        return error_full;
    }
    if (acls != 0) {
        impl_->wanted.binding[phyid] = acls;
    } else {
        impl_->wanted.binding.erase(phyid);
    }
    impl_->flush_later();
    return 0;
}

int EbpfPlane::replace_all(const PlaneState &state)
{
    std::string why;
    for (const auto &rules : state.rules) {
        if (!check_rules(rules, why)) {
            return error_invalid;
        }
    }
    if (!impl_->may_write()) {
        return -EBUSY;
    }
    if (const int code = impl_->locate_all(state.binding); code != 0) {
        return code;
    }
    impl_->wanted = state;
    impl_->flush_later();
    return 0;
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
    Addresses(impl_->side.seen.get()).forget(vlan, to_u64(mac.data()), impl_->pvids());
    impl_->begin_epoch();
}

PlaneState EbpfPlane::installed() const
{
    return impl_->wanted;
}

void EbpfPlane::set_events(PlaneEvents *events)
{
    impl_->events = events;
    std::string why;
    if (events == nullptr) {
        impl_->stop_events();
    } else if (impl_->ring == nullptr && !impl_->start_events(why)) {
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
    impl_->states->set_pvid(index, port.pvid);
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
        Addresses(impl_->side.seen.get()).forget_if([&](const vv_seen &seen) { return seen.port == index; });
        impl_->begin_epoch();
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
