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

// What a watched descriptor is waited for, and what it is ready for.
constexpr unsigned fd_readable = 1;
constexpr unsigned fd_writable = 2;

class Loop
{
  public:
    virtual ~Loop() = default;

    // Whether the clock runs by itself. On a virtual clock, a limit on the time
    // that another process takes to answer has no meaning.
    virtual bool has_real_clock() const { return true; }

    // Microseconds since the loop was made; never goes back.
    virtual uint64_t now_us() const = 0;

    // Runs the task once, after the current callback, in the order of posting.
    virtual void post(std::function<void()> task) = 0;

    // Runs the task once, delay_us from now. Timers that are due at the same
    // time run in the order in which they were armed, after posted tasks.
    virtual LoopId add_timer(uint64_t delay_us, std::function<void()> task) = 0;

    // Cancels a timer; nothing happens where it has run or is unknown.
    virtual void cancel_timer(LoopId timer) = 0;

    // ---- What comes from outside the process ----

    // Calls ready while the descriptor is ready for one of events; an error or
    // a hang-up counts as both. The caller owns the descriptor and keeps it open
    // until it is unwatched; a descriptor has one watch at a time. ready may
    // change or end any watch, including its own.
    virtual LoopId watch_fd(int fd, unsigned events, std::function<void(unsigned ready)> ready) = 0;

    // Changes the events that a watch waits for; 0: none. An unknown watch is ignored.
    virtual void change_watch(LoopId watch, unsigned events) = 0;

    // Ends a watch; ready is not called again. An unknown watch is ignored.
    virtual void unwatch_fd(LoopId watch) = 0;

    // Adds count to the number of answers that other processes still owe. An
    // answer costs no virtual time: a virtual clock stands still until all of
    // them have come. A real loop does not need the number.
    virtual void expect_answers(int count) { static_cast<void>(count); }

    // On a virtual clock: waits until every expected answer has come. Handlers of
    // descriptors run meanwhile, tasks and timers do not. A caller that does this
    // after each request sees the requests carried out one after the other, as
    // if the other process were this one. On a real clock: does nothing.
    virtual void let_answers_in() {}
};

} // namespace vvl
