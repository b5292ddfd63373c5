// A forwarding plane, as its manager and the switch's sides see it.
//
// The manager decides what is installed and when, and always hands over a whole
// state; the plane finds out what that changes and makes it act.
#pragma once

#include "platform/fp/rule.h"

#include <cstdint>
#include <span>
#include <string>

namespace vvl::fp
{

// What a plane tells, from the loop. All may be called for the same frame.
class PlaneEvents
{
  public:
    virtual ~PlaneEvents() = default;

    // A frame of a voice device came in on a trapped port. frame is as it came
    // in and lives until the call returns. The frame is forwarded as well, or
    // dropped where Acl::security denies it (as it does to a phone that tags its
    // frames before its port has Acl::voice).
    virtual void voice_trapped(uint32_t phyid, const Mac &source, std::span<const uint8_t> frame) = 0;

    // A source MAC was seen in a VLAN on a port, after the ACLs: at once where
    // it is new or has moved, then at most once a second.
    virtual void mac_seen(uint16_t vlan, const Mac &mac, uint32_t phyid) = 0;
};

class Plane
{
  public:
    virtual ~Plane() = default;

    // Forwards by this state from now on, in one step: no frame sees a part of
    // it, and every frame that comes in after the call sees all of it. What the
    // state does not change keeps its counters and learned addresses. Bindings
    // may name ports that add_port() has not made known. state: copied.
    // Returns 0, or a negative code with the earlier state still in force:
    // error_invalid where check_state() refuses it, error_full where there is no
    // room for its ports, or a code of the plane's own.
    virtual int install(const PlaneState &state) = 0;

    // Copies voice frames of the port to the packet side, or stops it. A voice
    // frame is one whose source MAC matches a MAC rule of Acl::voice, in any
    // VLAN, whether or not the ACL is bound to the port. Returns 0, or
    // error_full where there is no room for the port.
    virtual int set_trap(uint32_t phyid, bool on) = 0;

    // Forgets a learned address; its next frame counts as new.
    virtual void forget(uint16_t vlan, const Mac &mac) = 0;

    // What the plane forwards by: the state of the last install() that returned
    // 0. A plane that outlives the agent has what an earlier one left, which its
    // manager preserves until its first reconciliation ends.
    virtual PlaneState installed() const { return {}; }
};

struct PlanePort {
    uint32_t phyid = 0;
    uint16_t pvid = 1;          // VLAN of untagged frames, 1 to 4094
    bool uplink = false;        // towards the network rather than a device
    std::string interface = {}; // network interface; not used by a plane in this process
};

struct PortCounters {
    uint64_t in = 0;       // frames that came in
    uint64_t out = 0;      // frames that left
    uint64_t trapped = 0;  // copied to the packet side
    uint64_t tagged = 0;   // given the voice tag
    uint64_t remarked = 0; // given CoS or DSCP by Acl::voice or Acl::security
    uint64_t dropped = 0;  // denied by an ACL, or not a whole Ethernet header
    bool operator==(const PortCounters &) const = default;
};

// A plane with ports and events, as the switch is put together from it. Bindings
// and traps may come before their port.
class DataPlane : public Plane
{
  public:
    // Where events go; null: nowhere. events outlives the plane, or is replaced before it ends.
    virtual void set_events(PlaneEvents *events) = 0;

    // Makes a port known, or changes it. On failure why names the port and the
    // reason, and nothing has changed.
    virtual bool add_port(const PlanePort &port, std::string &why) = 0;

    // A port whose link is down takes and sends no frames, and what was learned
    // on it is forgotten. A new port's link is up.
    virtual void set_link(uint32_t phyid, bool up) = 0;

    // The port's interface is gone: its addresses are forgotten. What is bound
    // to the port stays, for when the interface is back by add_port().
    virtual void remove_port(uint32_t phyid) { static_cast<void>(phyid); }

    virtual PortCounters counters(uint32_t phyid) const = 0; // zero for an unknown port
};

} // namespace vvl::fp
