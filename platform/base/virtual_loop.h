// A loop whose clock stands still until it is told to move: a day passes in
// milliseconds, and a run is deterministic.
#pragma once

#include "platform/base/loop.h"

#include <deque>
#include <map>

namespace vvl
{

class VirtualLoop final : public Loop
{
  public:
    uint64_t now_us() const override { return now_us_; }
    void post(std::function<void()> task) override { tasks_.push_back(std::move(task)); }
    LoopId add_timer(uint64_t delay_us, std::function<void()> task) override;
    void cancel_timer(LoopId timer) override;

    // Runs posted tasks, and those that they post, until none is left. The
    // clock does not move.
    void run_pending();

    // Moves the clock forward, stopping at each timer that is due on the way.
    void advance(uint64_t delta_us);

    // Drops every task and timer, for a host that is shutting down.
    void clear();

  private:
    struct Timer {
        LoopId id;
        std::function<void()> task;
    };

    uint64_t now_us_ = 0;
    LoopId last_id_ = 0;
    std::deque<std::function<void()>> tasks_;
    std::multimap<uint64_t, Timer> timers_; // by due time; equal times keep the order of arming
};

} // namespace vvl
