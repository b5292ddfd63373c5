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

    // Whether the clock goes by itself. On one that does not, time limits of
    // other processes' answers have no meaning.
    virtual bool has_real_clock() const { return true; }

    // Microseconds since the loop was made; never goes back.
    virtual uint64_t now_us() const = 0;

    // Runs the task once, after the current callback, in the order of posting.
    virtual void post(std::function<void()> task) = 0;

    // Runs the task once, delay_us from now. Timers that are due at the same
    // time run in the order in which they were armed, after posted tasks.
    virtual LoopId add_timer(uint64_t delay_us, std::function<void()> task) = 0;

    // Forgets a timer; one that has run or is unknown is ignored.
    virtual void cancel_timer(LoopId timer) = 0;

    // ---- What comes from outside the process ----

    // Calls ready each time the descriptor is ready for one of events, and
    // again for as long as it is; an error or a hang-up counts as both. The
    // descriptor stays the caller's and open until it is unwatched; it has one
    // watch at a time. ready may change or end any watch, its own too.
    virtual LoopId watch_fd(int fd, unsigned events, std::function<void(unsigned ready)> ready) = 0;

    // Waits for other events from now on; 0: for none. An unknown watch is ignored.
    virtual void change_watch(LoopId watch, unsigned events) = 0;

    // Ends a watch; ready is not called any more. An unknown one is ignored.
    virtual void unwatch_fd(LoopId watch) = 0;

    // Counts the answers that are on their way from outside: count is added.
    // They cost no virtual time, so a virtual clock stands still and its loop
    // does not come to rest until all of them are there. A real loop needs no
    // such count.
    virtual void expect_answers(int count) { static_cast<void>(count); }

    // On a virtual clock: waits until every expected answer is there, running
    // descriptors' handlers but no task and no timer. Whoever calls it behind
    // each request has requests carried out one after the other, as if the
    // other process were this one. On a real clock: nothing.
    virtual void let_answers_in() {}
};

} // namespace vvl
