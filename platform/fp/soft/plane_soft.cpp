// The software plane: ports, the way of a frame through them, and the bridge
// behind the ACLs. A frame leaves in the form that the ACLs gave it, on every
// port alike; there is no VLAN membership and no tagging per output port.
//
// A frame of a voice device is trapped even where the security ACL drops it.
// A port in automatic mode has that ACL, and not yet the voice ACL, until its
// device is noticed, so a phone that tags its own frames could otherwise never
// be noticed. The trap asks for a known voice address, hence no denied
// stranger is trapped this way.
//
// Events and outputs may call back into the plane. Everything that is needed of
// a table or a port is therefore read before one of them is called, or again
// after it.
#include "platform/fp/soft/plane_soft.h"

#include "platform/base/log.h"
#include "platform/fp/error.h"
#include "platform/fp/soft/mac_table.h"
#include "platform/fp/soft/pipeline.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vvl::fp
{
namespace
{

constexpr uint64_t group_bit = uint64_t{1} << 40; // of an address as of to_u64

struct Port {
    bool known = false; // add_port was called; before, bindings and traps wait here
    bool uplink = false;
    bool up = true;
    bool trap = false;
    uint8_t acls = 0; // acl_bit()s
    uint16_t pvid = 1;
    PortCounters counters;
};

} // namespace

struct SoftPlane::Impl {
    explicit Impl(Loop &the_loop) : loop(the_loop) {}

    Loop &loop;
    PlaneEvents *events = nullptr;
    FrameOutput output;
    std::vector<Rule> rules[acl_count]; // by Acl, as installed
    AclSet acls;                        // compiled from them
    MacTable macs;
    std::map<uint32_t, Port> ports; // by phyid; never erased, so references stay
    uint64_t stray = 0;             // frames for unknown ports
    std::vector<uint8_t> scratch;   // storage of the frame in work, kept between frames

    Port *port_for_policy(uint32_t phyid);
    bool has_room_for(const std::map<uint32_t, uint8_t> &binding) const;
    void handle(uint32_t phyid, Port &port, std::span<const uint8_t> original, std::vector<uint8_t> &frame);
    void learn(uint16_t vlan, uint64_t source, uint32_t phyid, bool from_uplink);
    void trap(uint32_t phyid, Port &port, uint64_t source, std::span<const uint8_t> original);
    void forward(uint32_t phyid, bool from_uplink, uint16_t vlan, uint64_t destination, std::span<const uint8_t> frame);
    void send(uint32_t phyid, Port &port, std::span<const uint8_t> frame);
};

// Bindings may come before their ports. Null where ports_max are in use.
Port *SoftPlane::Impl::port_for_policy(uint32_t phyid)
{
    const auto found = ports.find(phyid);
    if (found != ports.end()) {
        return &found->second;
    }
    return ports.size() < ports_max ? &ports[phyid] : nullptr;
}

bool SoftPlane::Impl::has_room_for(const std::map<uint32_t, uint8_t> &binding) const
{
    if (ports.size() + binding.size() <= ports_max) {
        return true; // even if all of them are new
    }
    const auto new_ports = std::ranges::count_if(binding, [&](const auto &row) { return !ports.contains(row.first); });
    return ports.size() + static_cast<size_t>(new_ports) <= ports_max;
}

void SoftPlane::Impl::handle(uint32_t phyid, Port &port, std::span<const uint8_t> original, std::vector<uint8_t> &frame)
{
    FrameHeader header;
    if (!read_header(frame, header)) {
        port.counters.dropped++;
        return;
    }
    const bool voice = port.trap && acls.at(Acl::voice).names_mac(header.source);
    const bool from_uplink = port.uplink;
    const Verdict verdict = run_acls(acls, {port.acls, port.pvid, port.uplink}, frame, header);
    port.counters.tagged += verdict.tagged;
    port.counters.remarked += verdict.remarked;
    port.counters.dropped += verdict.drop;
    if (!verdict.drop && !verdict.reserved) {
        learn(verdict.vlan, header.source, phyid, from_uplink);
    }
    if (voice) {
        trap(phyid, port, header.source, original);
    }
    if (!verdict.drop) {
        forward(phyid, from_uplink, verdict.vlan, header.destination, frame);
    }
}

void SoftPlane::Impl::learn(uint16_t vlan, uint64_t source, uint32_t phyid, bool from_uplink)
{
    // A group address cannot be a sender, and an all-zero one is not an address:
    // to learn either would redirect frames that are meant for others.
    if (source == 0 || (source & group_bit)) {
        return;
    }
    const MacTable::Sender sender = {phyid, from_uplink, acls.at(Acl::voice).names_mac(source)};
    if (macs.learn(vlan, source, sender, loop.now_us()) && events) {
        events->mac_seen(vlan, mac_of(source), phyid);
    }
}

void SoftPlane::Impl::trap(uint32_t phyid, Port &port, uint64_t source, std::span<const uint8_t> original)
{
    port.counters.trapped++;
    if (events) {
        events->voice_trapped(phyid, mac_of(source), original);
    }
}

void SoftPlane::Impl::forward(uint32_t phyid, bool from_uplink, uint16_t vlan, uint64_t destination,
                              std::span<const uint8_t> frame)
{
    uint32_t target = 0;
    if (!(destination & group_bit) && macs.find(vlan, destination, target)) {
        if (target != phyid) {
            send(target, ports.at(target), frame);
        }
        return;
    }
    for (auto &[other, port] : ports) {
        if (other != phyid && (from_uplink || port.uplink)) {
            send(other, port, frame);
        }
    }
}

void SoftPlane::Impl::send(uint32_t phyid, Port &port, std::span<const uint8_t> frame)
{
    if (!port.known || !port.up) {
        return;
    }
    port.counters.out++;
    if (output) {
        output(phyid, frame);
    }
}

SoftPlane::SoftPlane(Loop &loop) : impl_(std::make_unique<Impl>(loop)) {}

SoftPlane::~SoftPlane() = default;

int SoftPlane::install(const PlaneState &state)
{
    std::string why;
    if (!check_state(state, why)) {
        return error_invalid;
    }
    if (!impl_->has_room_for(state.binding)) {
        return error_full;
    }
    for (size_t i = 0; i < acl_count; i++) {
        if (impl_->rules[i] != state.rules[i]) {
            impl_->rules[i] = state.rules[i];
            impl_->acls.acls[i] = Classifier(state.rules[i]);
        }
    }
    for (auto &[phyid, port] : impl_->ports) {
        port.acls = 0;
    }
    auto place = impl_->ports.begin(); // both are in ascending order
    for (const auto &[phyid, bound] : state.binding) {
        place = impl_->ports.try_emplace(place, phyid);
        place->second.acls = bound;
        ++place;
    }
    return 0;
}

int SoftPlane::set_trap(uint32_t phyid, bool on)
{
    Port *port = impl_->port_for_policy(phyid);
    if (!port) {
        return error_full;
    }
    port->trap = on;
    return 0;
}

void SoftPlane::forget(uint16_t vlan, const Mac &mac)
{
    impl_->macs.forget(vlan, to_u64(mac.data()));
}

PlaneState SoftPlane::installed() const
{
    PlaneState state;
    std::ranges::copy(impl_->rules, state.rules);
    for (const auto &[phyid, port] : impl_->ports) {
        if (port.acls != 0) {
            state.binding.emplace(phyid, port.acls);
        }
    }
    return state;
}

void SoftPlane::set_events(PlaneEvents *events)
{
    impl_->events = events;
}

void SoftPlane::set_output(FrameOutput output)
{
    impl_->output = std::move(output);
}

bool SoftPlane::add_port(const PlanePort &port, std::string &why)
{
    if (port.pvid == 0 || port.pvid > vid_max) {
        why = name_of(port) + ": PVID " + std::to_string(port.pvid) + " is not 1 to 4094";
        return false;
    }
    Port *known = impl_->port_for_policy(port.phyid);
    if (!known) {
        why = name_of(port) + ": the plane has " + std::to_string(ports_max) + " ports already";
        return false;
    }
    known->known = true;
    known->pvid = port.pvid;
    known->uplink = port.uplink;
    return true;
}

void SoftPlane::set_link(uint32_t phyid, bool up)
{
    const auto found = impl_->ports.find(phyid);
    if (found == impl_->ports.end()) {
        return;
    }
    found->second.up = up;
    if (!up) {
        // What was behind the link may turn up elsewhere, and counts as new there.
        impl_->macs.forget_port(phyid);
    }
}

void SoftPlane::receive(uint32_t phyid, std::span<const uint8_t> frame)
{
    const auto found = impl_->ports.find(phyid);
    if (found == impl_->ports.end() || !found->second.known) {
        impl_->stray++;
        return;
    }
    Port &port = found->second;
    if (!port.up) {
        port.counters.dropped++;
        return;
    }
    port.counters.in++;
    // An output may bring a frame back in: it then finds no storage here and takes its own.
    std::vector<uint8_t> work = std::move(impl_->scratch);
    work.assign(frame.begin(), frame.end());
    impl_->handle(phyid, port, frame, work);
    impl_->scratch = std::move(work);
}

PortCounters SoftPlane::counters(uint32_t phyid) const
{
    const auto found = impl_->ports.find(phyid);
    return found == impl_->ports.end() ? PortCounters{} : found->second.counters;
}

PortCounters SoftPlane::total() const
{
    PortCounters sum;
    for (const auto &[phyid, port] : impl_->ports) {
        sum.in += port.counters.in;
        sum.out += port.counters.out;
        sum.trapped += port.counters.trapped;
        sum.tagged += port.counters.tagged;
        sum.remarked += port.counters.remarked;
        sum.dropped += port.counters.dropped;
    }
    sum.dropped += impl_->stray;
    return sum;
}

uint64_t SoftPlane::addresses_refused() const
{
    return impl_->macs.refused();
}

} // namespace vvl::fp
