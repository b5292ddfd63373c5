#include "platform/fp/ebpf/addresses.h"

#include <bpf/bpf.h>
#include <cerrno>
#include <vector>

namespace vvl::fp
{
namespace
{

constexpr uint32_t batch_size = 4096; // entries read by one system call
constexpr unsigned form_count = 4;    // of frames, as the programs tell them apart

} // namespace

void Addresses::forget(uint16_t vlan, uint64_t mac, const std::set<uint16_t> &pvids)
{
    const auto forget_key = [&](uint64_t key) {
        vv_seen seen{};
        if (bpf_map_lookup_elem(map_, &key, &seen) == 0 && seen.vlan == vlan) {
            bpf_map_delete_elem(map_, &key);
        }
    };
    for (uint64_t form = 0; form < form_count; form++) {
        forget_key(VV_SEEN_KEY(mac, vlan, form));
        for (const uint16_t pvid : pvids) {
            forget_key(VV_SEEN_KEY(mac, pvid, form));
        }
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
