#include "platform/fp/soft/mac_table.h"

namespace vvl::fp
{
namespace
{

uint64_t key_of(uint16_t vlan, uint64_t mac)
{
    return static_cast<uint64_t>(vlan) << 48 | mac;
}

} // namespace

bool MacTable::learn(uint16_t vlan, uint64_t mac, uint32_t phyid, uint64_t now_us)
{
    const auto found = entries_.find(key_of(vlan, mac));
    if (found == entries_.end()) {
        if (entries_.size() >= mac_table_max) {
            refused_++;
            return false;
        }
        entries_.emplace(key_of(vlan, mac), Entry{phyid, now_us});
        return true;
    }
    Entry &entry = found->second;
    if (entry.phyid == phyid && now_us - entry.reported_us < mac_seen_interval_us) {
        return false;
    }
    entry = {phyid, now_us};
    return true;
}

bool MacTable::find(uint16_t vlan, uint64_t mac, uint32_t &phyid) const
{
    const auto found = entries_.find(key_of(vlan, mac));
    if (found == entries_.end()) {
        return false;
    }
    phyid = found->second.phyid;
    return true;
}

void MacTable::forget(uint16_t vlan, uint64_t mac)
{
    entries_.erase(key_of(vlan, mac));
}

void MacTable::forget_port(uint32_t phyid)
{
    std::erase_if(entries_, [phyid](const auto &entry) { return entry.second.phyid == phyid; });
}

} // namespace vvl::fp
