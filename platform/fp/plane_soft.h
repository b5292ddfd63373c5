// The software forwarding plane: classifies, rewrites and bridges raw frames
// in this process.
//
// Limits: ports_max ports, with those that are only bound or trapped so far;
// set_binding, replace_all and set_trap refuse what goes beyond. Learned
// addresses: mac_table.h.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/plane.h"

#include <functional>
#include <memory>

namespace vvl::fp
{

constexpr size_t ports_max = 4096;

// Ports take frames; a frame that leaves is handed to the output.
struct PortCounters {
    uint64_t in = 0;       // frames that came in
    uint64_t out = 0;      // frames that left
    uint64_t trapped = 0;  // copied to the packet side
    uint64_t tagged = 0;   // given the voice tag
    uint64_t remarked = 0; // given CoS or DSCP by Acl::voice or Acl::security
    uint64_t dropped = 0;  // denied by an ACL, or not a whole Ethernet header
    bool operator==(const PortCounters &) const = default;
};

using FrameOutput = std::function<void(uint32_t phyid, std::span<const uint8_t> frame)>;

class SoftPlane final : public Plane
{
  public:
    explicit SoftPlane(Loop &loop); // the loop's clock paces mac_seen
    ~SoftPlane() override;

    int set_rules(Acl acl, std::span<const Rule> rules) override;
    int set_binding(uint32_t phyid, uint8_t acls) override;
    int replace_all(const PlaneState &state) override;
    int set_trap(uint32_t phyid, bool on) override;
    void forget(uint16_t vlan, const Mac &mac) override;

    // Where events and frames go; null and empty: nowhere. Both must outlive the plane.
    void set_events(PlaneEvents *events);
    void set_output(FrameOutput output);

    // Makes a port known. pvid: VLAN of its untagged frames, 1 to 4094. uplink:
    // unknown destinations of access ports go to uplinks only, those of an
    // uplink go to every other port.
    void add_port(uint32_t phyid, uint16_t pvid, bool uplink);
    // A port whose link is down takes and sends no frames, and what was learned
    // on it is forgotten. A new port's link is up.
    void set_link(uint32_t phyid, bool up);

    // A frame comes in (no FCS). Unknown or down port: counted as dropped. A
    // frame that goes out of several ports goes in ascending order of phyid.
    void receive(uint32_t phyid, std::span<const uint8_t> frame);

    PortCounters counters(uint32_t phyid) const; // zero for an unknown port
    PortCounters total() const;
    uint64_t addresses_refused() const; // frames whose source found the address table full

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::fp
