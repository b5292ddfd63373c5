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

// What both planes do to a frame, beside what its rules ask for:
//
// - Frames to reserved destinations (is_reserved) pass as they came in. No ACL acts
//   on them and their sources are not learned; they may be trapped.
// - A tag with a VLAN id decides the VLAN; behind an outer tag of VLAN 0 that is the
//   inner one's. Such a frame counts as tagged once.
// - The voice VLAN is the one that the rules of Acl::security are for
//   (Classifier::vlan). A port is in it where it is an uplink, where its PVID is the
//   voice VLAN, or where Acl::mac_vlan or Acl::voice is bound to it. A frame that
//   comes in with the tag of the voice VLAN on another port is dropped, as a bridge
//   that filters VLANs does; a voice frame is still trapped.
// - An address beyond the limits below is forwarded, but not learned. One that is
//   known never gives way to another.

constexpr size_t addresses_max = 16384;       // that a plane remembers
constexpr size_t other_addresses_max = 12288; // of them, such as no rule of Acl::voice names

// Addresses of one port, by who they belong to.
struct PortAddresses {
    size_t others; // that no rule of Acl::voice names when they are learned
    size_t voice;  // that one names
};

// Behind an access port is a handful of devices, behind an uplink a network.
constexpr PortAddresses port_addresses_max(bool uplink)
{
    return uplink ? PortAddresses{8192, 2048} : PortAddresses{1024, 256};
}

// What a plane tells, from the loop. All may be called for the same frame.
class PlaneEvents
{
  public:
    virtual ~PlaneEvents() = default;

    // A frame of a voice device came in on a trapped port. frame is as it came
    // in and lives until the call returns. The frame is forwarded as well, or
    // dropped where the port is not in the voice VLAN yet and the phone tags its
    // frames.
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
    uint32_t ifx = 0;           // the operator's number of the port, for messages
};

// "port 1 (eth1)", as the operator knows it; without its interface where it has none.
inline std::string name_of(const PlanePort &port)
{
    return "port " + std::to_string(port.ifx) + (port.interface.empty() ? "" : " (" + port.interface + ")");
}

enum class PortHealth {
    served,     // the plane gets all frames of the port
    restored,   // it did not, and does again
    not_served, // somebody else is in the way
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

    // The switch has these ports and no others: what an earlier agent left of
    // another port is taken away. Before add_port(), by the agent alone.
    virtual void keep_only(std::span<const PlanePort> ports) { static_cast<void>(ports); }

    // Looks whether the plane still gets the frames of a port that was added, and
    // puts back what somebody has taken away. what: what happened, or is in the way.
    virtual PortHealth look_after(uint32_t phyid, std::string &what)
    {
        static_cast<void>(phyid);
        static_cast<void>(what);
        return PortHealth::served;
    }

    virtual PortCounters counters(uint32_t phyid) const = 0; // zero for an unknown port
};

} // namespace vvl::fp
