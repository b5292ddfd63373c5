// The bridge side: the table of learned addresses, and its copy in the store for
// the registered VLANs.
//
// The table holds every source address that the plane reports, in any VLAN. An
// address leaves it after the aging time without a frame, or when its port loses
// its link. For a VLAN with a registration (u_bridge.mac_vid_reg, database 6)
// each entry is also a u_bridge.mac_vid_reg_noti in the store. A data-sync cycle
// removes outdated ones at the start and after each lost connection.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/plane.h"
#include "platform/mom/owned_client.h"

#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace vvl::sides
{

constexpr size_t learned_count_max = 16384; // addresses; further ones are counted and not learned

// The aging time that IEEE 802.1Q recommends for learned addresses.
constexpr uint64_t bridge_age_default_us = 300'000'000;

struct BridgeCounters {
    uint64_t learned = 0;      // new addresses
    uint64_t moved = 0;        // addresses seen on another port than before
    uint64_t aged = 0;         // addresses not seen for the aging time
    uint64_t lost = 0;         // addresses of ports that lost their link
    uint64_t full = 0;         // addresses not learned at learned_count_max
    uint64_t refused = 0;      // group addresses, VLANs outside 1 to 4094, ports outside the port-id map
    uint64_t write_failed = 0; // notifications that the store refused; the next resynchronisation repairs this
};

class BridgeSide final : public fp::PlaneEvents
{
  public:
    // All arguments outlive the side. age_us: aging time, at least 1.
    BridgeSide(mom::Store &store, Loop &loop, fp::Plane &plane, uint64_t age_us = bridge_age_default_us);
    ~BridgeSide() override; // the store keeps its notifications

    BridgeSide(const BridgeSide &) = delete;
    BridgeSide &operator=(const BridgeSide &) = delete;

    // Connects to database 6, once; the loop does the rest. On failure why names
    // the database and the reason, and the side does nothing.
    bool start(std::string &why);

    // The port has lost its link: forgets its addresses.
    void link_lost(uint32_t phyid);

    void voice_trapped(uint32_t, const Mac &, std::span<const uint8_t>) override {}
    void mac_seen(uint16_t vlan, const Mac &mac, uint32_t phyid) override;

    size_t learned_count() const { return learned_.size(); }
    const BridgeCounters &counters() const { return counters_; }

    // The side's store client, for cutting its connections (mom::set_link).
    void *client() { return client_.ctx(); }

  private:
    struct Key {
        uint16_t vlan;
        Mac mac;
        auto operator<=>(const Key &) const = default;
    };
    struct Entry {
        uint32_t phyid;
        uint32_t ifx;
        uint64_t seen_us;
        std::list<Key>::iterator place; // in by_age_
    };
    using Table = std::map<Key, Entry>;

    static int on_registration(void *ctx, tq_mom_record_t *record, void *user);

    void subscribe();
    void open_cycle();
    void scan();
    void close_cycle();
    void register_vlan(uint32_t vid);
    void withdraw_vlan(uint32_t vid);
    bool registered(uint16_t vlan) const { return vlans_.count(vlan) != 0; }
    void write_vlan(uint16_t vlan, bool present);
    void write(const Key &key, const Entry &entry, bool present);
    bool learn(const Key &key, uint32_t phyid, uint32_t ifx);
    Table::iterator remove(Table::iterator entry);
    void arm_aging();
    void age();

    fp::Plane &plane_;
    Loop &loop_;
    uint64_t age_us_;
    LoopId aging_timer_ = 0; // one for all addresses; 0: not armed
    Table learned_;
    std::list<Key> by_age_; // longest unseen first
    std::set<uint16_t> vlans_;
    BridgeCounters counters_;
    mom::OwnedClient client_; // goes first: its callbacks use the others
};

} // namespace vvl::sides
