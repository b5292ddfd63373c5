// Hands each event of the plane to every listener: a plane knows one listener,
// but the packet side needs the trapped frames and the bridge side the addresses.
#pragma once

#include "platform/fp/plane.h"

#include <vector>

namespace vvl::sides
{

class FanOut final : public fp::PlaneEvents
{
  public:
    // The listeners are told in this order and must outlive the fan-out.
    explicit FanOut(std::vector<fp::PlaneEvents *> listeners) : listeners_(std::move(listeners)) {}

    void voice_trapped(uint32_t phyid, const Mac &source, std::span<const uint8_t> frame) override
    {
        for (fp::PlaneEvents *listener : listeners_) {
            listener->voice_trapped(phyid, source, frame);
        }
    }

    void mac_seen(uint16_t vlan, const Mac &mac, uint32_t phyid) override
    {
        for (fp::PlaneEvents *listener : listeners_) {
            listener->mac_seen(vlan, mac, phyid);
        }
    }

  private:
    std::vector<fp::PlaneEvents *> listeners_;
};

} // namespace vvl::sides
