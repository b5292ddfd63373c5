// The event loop as the platform's parts see it: one thread, a queue of tasks,
// one-shot timers and a monotonic clock that may be real or virtual.
//
// Everything in the platform and the module runs on one loop, one callback at
// a time. That is why no part takes a lock, and why a part that must not call
// back from inside a call posts a task instead.
#pragma once

#include <cstdint>
#include <functional>

namespace vvl
{

// Identifies a timer or a watch; 0 is never handed out.
using LoopId = uint64_t;

class Loop
{
  public:
    virtual ~Loop() = default;

    // Microseconds since the loop was made; never goes back.
    virtual uint64_t now_us() const = 0;

    // Runs the task once, after the current callback, in the order of posting.
    virtual void post(std::function<void()> task) = 0;

    // Runs the task once, delay_us from now. Timers that are due at the same
    // time run in the order in which they were armed, after posted tasks.
    virtual LoopId add_timer(uint64_t delay_us, std::function<void()> task) = 0;

    // Forgets a timer; one that has run or is unknown is ignored.
    virtual void cancel_timer(LoopId timer) = 0;
};

} // namespace vvl
