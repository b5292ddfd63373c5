// Learned addresses: on which port a MAC address of a VLAN was last seen.
//
// Limit: mac_table_max addresses. A new address beyond is not learned (its
// frames are flooded as those of any unknown one) and counted; known ones are
// never pushed out, so that a flood of made-up addresses cannot take the place
// of those in use. Nothing ages here: whoever learns of an address decides how
// long it lives, and has it forgotten.
#pragma once

#include "platform/base/mac.h"

#include <cstdint>
#include <unordered_map>

namespace vvl::fp
{

constexpr size_t mac_table_max = 16384;
constexpr uint64_t mac_seen_interval_us = 1'000'000; // between two reports of an address

class MacTable
{
  public:
    // Learns the address (as of to_u64). Returns whether it is to be reported:
    // new, moved, or reported mac_seen_interval_us ago or longer.
    bool learn(uint16_t vlan, uint64_t mac, uint32_t phyid, uint64_t now_us);

    // The port of an address. Returns false for an unknown one.
    bool find(uint16_t vlan, uint64_t mac, uint32_t &phyid) const;

    void forget(uint16_t vlan, uint64_t mac);
    void forget_port(uint32_t phyid);

    uint64_t refused() const { return refused_; } // frames whose address found no room

  private:
    struct Entry {
        uint32_t phyid;
        uint64_t reported_us;
    };

    std::unordered_map<uint64_t, Entry> entries_; // VLAN id in the 16 bits above the address
    uint64_t refused_ = 0;
};

} // namespace vvl::fp
