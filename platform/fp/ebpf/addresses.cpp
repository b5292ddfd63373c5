#include "platform/fp/ebpf/addresses.h"

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

} // namespace

// A frame without a tag is kept by the PVID of its port, whatever VLAN the ACLs put it into.
void Addresses::forget(uint16_t vlan, uint64_t mac)
{
    const auto forget_key = [&](uint64_t key) {
        vv_seen seen{};
        if (bpf_map_lookup_elem(map_, &key, &seen) == 0 && seen.vlan == vlan) {
            bpf_map_delete_elem(map_, &key);
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
    begin_epoch();
}

void Addresses::count_tick()
{
    const uint32_t now = __atomic_add_fetch(&shared_.tick, 1, __ATOMIC_RELAXED);
    begin_epoch();
    if (now % sweep_interval_ticks == 0) {
        forget_if([&](const vv_seen &seen) { return now - seen.tick > idle_ticks_max; });
    }
}

void Addresses::forget_if(const std::function<bool(const vv_seen &)> &leaves)
{
    std::vector<uint64_t> keys(batch_size);
    std::vector<vv_seen> values(batch_size);
    std::vector<uint64_t> leaving;
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
            if (leaves(values[i])) {
                leaving.push_back(keys[i]);
            }
        }
    }
    for (const uint64_t key : leaving) {
        bpf_map_delete_elem(map_, &key);
    }
}

} // namespace vvl::fp
