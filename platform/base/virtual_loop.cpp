#include "platform/base/virtual_loop.h"

#include <algorithm>

namespace vvl
{

LoopId VirtualLoop::add_timer(uint64_t delay_us, std::function<void()> task)
{
    timers_.emplace(now_us_ + delay_us, Timer{++last_id_, std::move(task)});
    return last_id_;
}

void VirtualLoop::cancel_timer(LoopId timer)
{
    auto found = std::find_if(timers_.begin(), timers_.end(), [&](const auto &t) { return t.second.id == timer; });
    if (found != timers_.end()) {
        timers_.erase(found);
    }
}

void VirtualLoop::run_pending()
{
    while (!tasks_.empty()) {
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        task();
    }
}

void VirtualLoop::advance(uint64_t delta_us)
{
    const uint64_t end = now_us_ + delta_us;
    run_pending();
    while (!timers_.empty() && timers_.begin()->first <= end) {
        auto first = timers_.extract(timers_.begin());
        now_us_ = first.key();
        first.mapped().task();
        run_pending();
    }
    now_us_ = end;
}

void VirtualLoop::clear()
{
    tasks_.clear();
    timers_.clear();
}

} // namespace vvl
