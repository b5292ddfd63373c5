// What the kernel's programs report: the ring of events, read from the loop, and
// the tick that paces the reports.
#pragma once

#include "platform/base/loop.h"
#include "platform/fp/ebpf/addresses.h"
#include "platform/fp/ebpf/kernel.h"
#include "platform/fp/plane.h"

#include <memory>
#include <string>

struct ring_buffer;

namespace vvl::fp
{

class EventReader
{
  public:
    // All outlive this.
    EventReader(Loop &loop, const KernelSide &side, Addresses &addresses)
        : loop_(loop), side_(side), addresses_(addresses)
    {
    }
    ~EventReader() { stop(); }
    EventReader(const EventReader &) = delete;
    EventReader &operator=(const EventReader &) = delete;

    // Reports to the listener from now on, what is in the ring already too. False,
    // with the reason, where the ring cannot be read.
    bool start(PlaneEvents &listener, std::string &why);
    void stop();

  private:
    struct RingEnd {
        void operator()(ring_buffer *ring) const;
    };

    void consume();
    void tell(const void *record, size_t size);
    void arm_tick();

    Loop &loop_;
    const KernelSide &side_;
    Addresses &addresses_;
    std::unique_ptr<ring_buffer, RingEnd> ring_; // null: stopped
    PlaneEvents *listener_ = nullptr;
    LoopId watch_ = 0;
    LoopId timer_ = 0;
    uint32_t events_this_turn_ = 0;
};

} // namespace vvl::fp
