// A loop whose clock stands still until it is told to move: a day passes in
// milliseconds, and a run is deterministic. An answer of another process costs
// no virtual time: the loop waits for it, at most answer_limit_ms of real time.
#pragma once

#include "platform/base/loop.h"

#include <deque>
#include <map>

namespace vvl
{

constexpr int answer_limit_ms = 10'000; // an expected answer that takes longer is a fault: std::runtime_error

class VirtualLoop final : public Loop
{
  public:
    bool has_real_clock() const override { return false; }
    uint64_t now_us() const override { return now_us_; }
    void post(std::function<void()> task) override { tasks_.push_back(std::move(task)); }
    LoopId add_timer(uint64_t delay_us, std::function<void()> task) override;
    void cancel_timer(LoopId timer) override;
    LoopId watch_fd(int fd, unsigned events, std::function<void(unsigned ready)> ready) override;
    void change_watch(LoopId watch, unsigned events) override;
    void unwatch_fd(LoopId watch) override;
    void expect_answers(int count) override { expected_ += count; }
    void let_answers_in() override;

    // Runs posted tasks, those that they post, and the handlers of descriptors
    // that are ready, until none is left and no answer is expected. The clock
    // does not move.
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

    struct Watch {
        int fd;
        unsigned events;
        std::function<void(unsigned ready)> ready;
    };

    void run_tasks();
    bool poll_watches(int limit_ms); // false where nothing was ready in time

    uint64_t now_us_ = 0;
    LoopId last_id_ = 0;
    std::deque<std::function<void()>> tasks_;
    std::multimap<uint64_t, Timer> timers_; // by due time; equal times keep the order of arming
    std::map<LoopId, Watch> watches_;
    int expected_ = 0; // answers
};

} // namespace vvl
