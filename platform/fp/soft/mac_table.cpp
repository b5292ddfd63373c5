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

bool MacTable::learn(uint16_t vlan, uint64_t mac, const Sender &sender, uint64_t now_us)
{
    const PortAddresses limits = port_addresses_max(sender.uplink);
    PortShares &port = ports_[sender.phyid];
    port.others.max = limits.others;
    port.voice.max = limits.voice;
    const auto found = entries_.find(key_of(vlan, mac));
    if (found == entries_.end()) {
        const Share &share = sender.voice ? port.voice : port.others;
        const Share &all = sender.voice ? all_.voice : all_.others;
        if (share.used >= share.max || all.used >= all.max || entries_.size() >= addresses_max) {
            refused_++;
            return false;
        }
        entries_.emplace(key_of(vlan, mac), Entry{sender.phyid, now_us, sender.voice});
        count(sender.phyid, sender.voice, 1);
        return true;
    }
    Entry &entry = found->second;
    if (entry.phyid == sender.phyid && now_us - entry.reported_us < mac_seen_interval_us) {
        return false;
    }
    if (entry.phyid != sender.phyid) {
        count(entry.phyid, entry.voice, -1);
        count(sender.phyid, entry.voice, 1);
    }
    entry.phyid = sender.phyid;
    entry.reported_us = now_us;
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
    if (const auto found = entries_.find(key_of(vlan, mac)); found != entries_.end()) {
        count(found->second.phyid, found->second.voice, -1);
        entries_.erase(found);
    }
}

void MacTable::forget_port(uint32_t phyid)
{
    std::erase_if(entries_, [&](const auto &item) {
        const Entry &entry = item.second;
        if (entry.phyid == phyid) {
            count(phyid, entry.voice, -1);
        }
        return entry.phyid == phyid;
    });
}

void MacTable::count(uint32_t phyid, bool voice, int change)
{
    for (PortShares *owner : {&ports_[phyid], &all_}) {
        Share &share = voice ? owner->voice : owner->others;
        share.used += static_cast<size_t>(change);
        share.mark.look(share.used, share.max, [&] {
            return (owner == &all_ ? std::string("all ports") : "port " + std::to_string(phyid)) +
                   (voice ? ", addresses of voice devices" : ", addresses of other devices");
        });
    }
}

} // namespace vvl::fp
