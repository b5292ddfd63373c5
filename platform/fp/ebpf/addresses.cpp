#include "platform/fp/ebpf/addresses.h"

#include "platform/fp/plane.h"

#include <array>
#include <bpf/bpf.h>
#include <cerrno>
#include <set>
#include <vector>

namespace vvl::fp
{
namespace
{

constexpr uint32_t batch_size = 4096; // entries read by one system call
constexpr unsigned form_count = 4;    // of frames, as the programs tell them apart

constexpr uint32_t sweep_interval_ticks = 60;
// An address that the agent did not have forgotten itself, since it died before
// it could, is forgotten after twice the usual aging time of a bridge (IEEE
// 802.1D: 300 s).
constexpr uint32_t idle_ticks_max = 600;

static_assert(VV_SEEN_MAX == addresses_max && VV_SEEN_OTHERS_MAX == other_addresses_max);

// The VLANs that the ports put frames without a tag into.
std::set<uint16_t> pvids_of(const vv_shared &shared)
{
    std::set<uint16_t> all;
    for (uint32_t port = 0; port < VV_PORTS_MAX; port++) {
        if (shared.ports[port].flags & VV_PORT_USED) {
            all.insert(VV_BIND_PVID(shared.states[shared.active % VV_STATES].bind[port]));
        }
    }
    return all;
}

vv_share &share_of(vv_port &port, const vv_seen &seen)
{
    return seen.is_voice ? port.voice : port.others;
}

// The programs count in the same word meanwhile.
void add(vv_share &share, uint32_t change)
{
    __atomic_add_fetch(&share.used, change, __ATOMIC_RELAXED);
}

} // namespace

void limit_addresses(vv_shared &shared, uint32_t index, bool uplink)
{
    shared.others.max = VV_SEEN_OTHERS_MAX;
    shared.voice.max = VV_SEEN_MAX;
    vv_port &port = shared.ports[index];
    const PortAddresses max = port_addresses_max(uplink);
    port.others.max = static_cast<uint32_t>(max.others);
    port.voice.max = static_cast<uint32_t>(max.voice);
}

void Addresses::remove(uint64_t key, const vv_seen &seen)
{
    if (bpf_map_delete_elem(map_, &key) == 0) {
        add(share_of(shared_.ports[seen.port % VV_PORTS_MAX], seen), UINT32_MAX);
        add(seen.is_voice ? shared_.voice : shared_.others, UINT32_MAX);
    }
}

// A frame without a tag is kept by the PVID of its port, whatever VLAN the ACLs put it into.
void Addresses::forget(uint16_t vlan, uint64_t mac)
{
    const auto forget_key = [&](uint64_t key) {
        vv_seen seen{};
        if (bpf_map_lookup_elem(map_, &key, &seen) == 0 && seen.vlan == vlan) {
            remove(key, seen);
        }
    };
    const std::set<uint16_t> pvids = pvids_of(shared_);
    for (uint64_t form = 0; form < form_count; form++) {
        forget_key(VV_SEEN_KEY(mac, vlan, form));
        for (const uint16_t pvid : pvids) {
            forget_key(VV_SEEN_KEY(mac, pvid, form));
        }
    }
    begin_epoch();
}

void Addresses::forget_port(uint32_t port)
{
    forget_if([&](const vv_seen &seen) { return seen.port == port; });
    shared_.ports[port].speaker = 0;
    begin_epoch();
}

void Addresses::count_tick()
{
    const uint32_t now = __atomic_add_fetch(&shared_.tick, 1, __ATOMIC_RELAXED);
    begin_epoch();
    if (now % sweep_interval_ticks == 0) {
        forget_if([&](const vv_seen &seen) { return now - seen.tick > idle_ticks_max; });
    }
    if (now % sweep_interval_ticks == 0 || !is_counted_) {
        count_again();
    }
    fill_.look(shared_);
}

void Addresses::walk(const std::function<void(uint64_t key, const vv_seen &)> &visit) const
{
    std::vector<uint64_t> keys(batch_size);
    std::vector<vv_seen> values(batch_size);
    uint32_t position = 0;
    bool is_first = true;
    int rv = 0;
    while (rv == 0) {
        uint32_t count = batch_size;
        rv = bpf_map_lookup_batch(map_, is_first ? nullptr : &position, &position, keys.data(), values.data(), &count,
                                  nullptr);
        is_first = false;
        // The last batch comes with the error that says so.
        for (uint32_t i = 0; i < count && (rv == 0 || rv == -ENOENT); i++) {
            visit(keys[i], values[i]);
        }
    }
}

void Addresses::forget_if(const std::function<bool(const vv_seen &)> &leaves)
{
    std::vector<std::pair<uint64_t, vv_seen>> leaving;
    walk([&](uint64_t key, const vv_seen &seen) {
        if (leaves(seen)) {
            leaving.emplace_back(key, seen);
        }
    });
    for (const auto &[key, seen] : leaving) {
        remove(key, seen);
    }
}

// The difference is added, so that addresses that come meanwhile are not lost;
// those that the walk meets as well are counted twice, until the next time.
void Addresses::count_again()
{
    is_counted_ = true;
    std::vector<std::array<uint32_t, 2>> missing(VV_PORTS_MAX + 1); // by index; others, voice; then the sums
    const auto start = [&](uint32_t index, const vv_share &others, const vv_share &voice) {
        missing[index] = {-others.used, -voice.used};
    };
    for (uint32_t index = 0; index < VV_PORTS_MAX; index++) {
        start(index, shared_.ports[index].others, shared_.ports[index].voice);
    }
    start(VV_PORTS_MAX, shared_.others, shared_.voice);
    walk([&](uint64_t, const vv_seen &seen) {
        missing[seen.port % VV_PORTS_MAX][seen.is_voice % 2]++;
        missing[VV_PORTS_MAX][seen.is_voice % 2]++;
    });
    for (uint32_t index = 0; index < VV_PORTS_MAX; index++) {
        add(shared_.ports[index].others, missing[index][0]);
        add(shared_.ports[index].voice, missing[index][1]);
    }
    add(shared_.others, missing[VV_PORTS_MAX][0]);
    add(shared_.voice, missing[VV_PORTS_MAX][1]);
}

void AddressFill::look(Marks &marks, const std::string &name, const vv_share &others, const vv_share &voice)
{
    marks.others.look(others.used, others.max, [&] { return name + ", addresses of other devices"; });
    marks.voice.look(voice.used, voice.max, [&] { return name + ", addresses of voice devices"; });
}

void AddressFill::look(const vv_shared &shared)
{
    look(all_, "all ports", shared.others, shared.voice);
    for (uint32_t index = 0; index < VV_PORTS_MAX; index++) {
        const vv_port &port = shared.ports[index];
        if (port.flags & VV_PORT_USED) {
            look(ports_[index], "port " + std::to_string(port.phyid), port.others, port.voice);
        }
    }
}

} // namespace vvl::fp
