// Learned addresses: on which port a MAC address of a VLAN was last seen.
//
// Limits: those of plane.h. A new address beyond is not learned (its frames are
// flooded as those of any unknown one) and counted; known ones are never pushed
// out, so that a flood of made-up addresses cannot take the place of those in
// use. Nothing ages here: whoever learns of an address decides how long it
// lives, and has it forgotten.
#pragma once

#include "platform/base/mac.h"
#include "platform/fp/fill.h"
#include "platform/fp/plane.h"

#include <cstdint>
#include <map>
#include <unordered_map>

namespace vvl::fp
{

constexpr uint64_t mac_seen_interval_us = 1'000'000; // between two reports of an address

class MacTable
{
  public:
    // Who sent a frame.
    struct Sender {
        uint32_t phyid = 0;
        bool uplink = false; // the port is one
        bool voice = false;  // a rule of Acl::voice names the address
    };

    // Learns the address (as of to_u64). Returns whether it is to be reported:
    // new, moved, or reported mac_seen_interval_us ago or longer.
    bool learn(uint16_t vlan, uint64_t mac, const Sender &sender, uint64_t now_us);

    // The port of an address. Returns false for an unknown one.
    bool find(uint16_t vlan, uint64_t mac, uint32_t &phyid) const;

    void forget(uint16_t vlan, uint64_t mac);
    void forget_port(uint32_t phyid);

    uint64_t refused() const { return refused_; } // frames whose address found no room

  private:
    struct Entry {
        uint32_t phyid;
        uint64_t reported_us;
        bool voice; // counted among them
    };

    // Entries in use, of a port or of all, for one of both kinds of addresses.
    struct Share {
        size_t used = 0;
        size_t max = 0;
        FillMark mark;
    };
    struct PortShares {
        Share others;
        Share voice;
    };

    void count(uint32_t phyid, bool voice, int change);

    std::unordered_map<uint64_t, Entry> entries_; // VLAN id in the 16 bits above the address
    std::map<uint32_t, PortShares> ports_;        // by phyid
    PortShares all_{{0, other_addresses_max, {}}, {0, addresses_max, {}}};
    uint64_t refused_ = 0;
};

} // namespace vvl::fp
