// The software forwarding plane: classifies, rewrites and bridges raw frames
// in this process.
//
// Limits: ports_max ports, with those that are only bound or trapped so far;
// install and set_trap refuse what goes beyond. Learned addresses: mac_table.h.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/plane.h"

#include <functional>
#include <memory>

namespace vvl::fp
{

constexpr size_t ports_max = 4096;

// A frame that leaves is handed to the output.
using FrameOutput = std::function<void(uint32_t phyid, std::span<const uint8_t> frame)>;

class SoftPlane final : public DataPlane
{
  public:
    explicit SoftPlane(Loop &loop); // the loop's clock paces mac_seen
    ~SoftPlane() override;

    int install(const PlaneState &state) override;
    int set_trap(uint32_t phyid, bool on) override;
    void forget(uint16_t vlan, const Mac &mac) override;
    PlaneState installed() const override;
    void set_events(PlaneEvents *events) override;
    // Unknown destinations of access ports go to uplinks only, those of an
    // uplink go to every other port.
    bool add_port(const PlanePort &port, std::string &why) override;
    void set_link(uint32_t phyid, bool up) override;
    PortCounters counters(uint32_t phyid) const override;

    // Where frames go; empty: nowhere. What it refers to outlives the plane.
    void set_output(FrameOutput output);

    // A frame comes in (no FCS). Unknown or down port: counted as dropped. A
    // frame that goes out of several ports goes in ascending order of phyid.
    void receive(uint32_t phyid, std::span<const uint8_t> frame);

    PortCounters total() const;
    uint64_t addresses_refused() const; // frames whose source found the address table full

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::fp
