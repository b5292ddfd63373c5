// The packet side: turns a trapped voice frame into a port notification.
//
// While the trap object of a port (u_bridge.vvlan_port_cfg, database 8) is in
// the store, the plane copies the port's voice frames here. The first of them is
// published as s_bridge.vvlan_port_noty in database 0. Publishing every frame
// would flood the store at line rate, so nothing more is published for the port
// until its trap object is set again. But a notification is not stored, and is
// lost where nobody listens, as during a restart of the agent. So the next frame
// after renotify_interval_us is published too, if the trap object is still there.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/plane.h"
#include "platform/mom/owned_client.h"

#include <map>
#include <string>

namespace vvl::sides
{

constexpr uint64_t renotify_interval_us = 5'000'000;
constexpr size_t trap_count_max = 4096; // trapped ports; further ones are refused, logged and counted

struct PacketCounters {
    uint64_t published = 0;      // notifications handed to the store
    uint64_t publish_failed = 0; // notifications that the store refused; the next frame tries again
    uint64_t port_unknown = 0;   // trap objects of ports outside the port-id map
    uint64_t full = 0;           // trap objects refused at trap_count_max
};

class PacketSide final : public fp::PlaneEvents
{
  public:
    // All arguments outlive the side.
    PacketSide(mom::Store &store, Loop &loop, fp::Plane &plane);
    ~PacketSide() override; // takes its traps out of the plane

    PacketSide(const PacketSide &) = delete;
    PacketSide &operator=(const PacketSide &) = delete;

    // Connects to databases 8 and 0, once; the loop sets the traps. On failure why
    // names the database and the reason, and the side does nothing.
    bool start(std::string &why);

    void voice_trapped(uint32_t phyid, const Mac &source, std::span<const uint8_t> frame) override;
    void mac_seen(uint16_t, const Mac &, uint32_t) override {}

    const PacketCounters &counters() const { return counters_; }

    // The side's store client, for cutting its connections (mom::set_link).
    void *client() { return client_.ctx(); }

  private:
    static int on_trap_object(void *ctx, tq_mom_record_t *record, void *user);

    void subscribe();
    void scan();
    void set_trap(uint32_t ifx, bool on);
    void clear_trap(uint32_t phyid);

    fp::Plane &plane_;
    Loop &loop_;
    std::map<uint32_t, uint64_t> traps_; // by phyid; loop time from which a voice frame is published
    PacketCounters counters_;
    mom::OwnedClient client_; // goes first: its callbacks use the others
};

} // namespace vvl::sides
