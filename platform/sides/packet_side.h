// The packet side: turns a trapped voice frame into a port notification.
//
// A port is trapped while three things hold: its trap object
// (u_bridge.vvlan_port_cfg, database 8) is in the store, its configuration
// (database 4) is enabled and automatic, and the voice VLAN is on. The trap
// object alone is not enough: the agent leaves it behind when a waiting port is
// disabled or deleted, or the voice VLAN is switched off.
//
// While a port is trapped, the plane copies its voice frames here. The first of
// them is published as s_bridge.vvlan_port_noty in database 0. Publishing every
// frame would flood the store at line rate, so nothing more is published for the
// port until its trap object is set again. But a notification is not stored, and
// is lost where nobody listens, as during a restart of the agent. So the next
// frame after renotify_interval_us is published too, if the port is still trapped.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/plane.h"
#include "platform/mom/owned_client.h"

#include <map>
#include <string>

namespace vvl::sides
{

constexpr uint64_t renotify_interval_us = 5'000'000;
constexpr size_t packet_port_count_max = 4096; // ports with an object; further ones are refused, logged and counted

struct PacketCounters {
    uint64_t published = 0;      // notifications handed to the store
    uint64_t publish_failed = 0; // notifications that the store refused; the next frame tries again
    uint64_t port_unknown = 0;   // trap and configuration objects of ports outside the port-id map
    uint64_t full = 0;           // objects refused at packet_port_count_max
};

class PacketSide final : public fp::PlaneEvents
{
  public:
    // All arguments outlive the side.
    PacketSide(mom::Store &store, Loop &loop, fp::Plane &plane);
    ~PacketSide() override; // takes its traps out of the plane

    PacketSide(const PacketSide &) = delete;
    PacketSide &operator=(const PacketSide &) = delete;

    // Connects to databases 0, 4 and 8, once; the loop sets the traps. On failure why
    // names the database and the reason, and the side does nothing.
    bool start(std::string &why);

    // A frame of any other port removes that port's trap from the plane: a plane that
    // outlives the process still has the traps of the time before.
    void voice_trapped(uint32_t phyid, const Mac &source, std::span<const uint8_t> frame) override;
    void mac_seen(uint16_t, const Mac &, uint32_t) override {}

    const PacketCounters &counters() const { return counters_; }

    // The side's store client, for cutting its connections (mom::set_link).
    void *client() { return client_.ctx(); }

  private:
    struct Port {
        bool requested = false;       // its trap object is in the store
        bool automatic = false;       // its configuration is enabled and automatic
        bool trapped = false;         // in the plane
        uint64_t silent_until_us = 0; // loop time from which a voice frame is published
    };
    struct Subjects; // the object types that are followed
    template <const auto &subject> void subscribe();
    template <const auto &subject> static int on_record(void *ctx, tq_mom_record_t *record, void *user);
    void take_trap(const tq_mom_record_t &record);
    void take_port(const tq_mom_record_t &record);
    void take_global(const tq_mom_record_t &record);

    void set_fact(uint32_t ifx, bool Port::*fact, bool holds);
    void settle(uint32_t phyid, Port &port);
    void put_trap(uint32_t phyid, Port &port, bool on);

    fp::Plane &plane_;
    Loop &loop_;
    std::map<uint32_t, Port> ports_; // by phyid; those with an object
    uint32_t voice_vlan_ = 0;        // as the agent reads the configuration; 0: off
    PacketCounters counters_;
    mom::OwnedClient client_; // goes first: its callbacks use the others
};

} // namespace vvl::sides
