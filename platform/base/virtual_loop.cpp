#include "platform/base/virtual_loop.h"

#include <poll.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

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

LoopId VirtualLoop::watch_fd(int fd, unsigned events, std::function<void(unsigned ready)> ready)
{
    watches_.emplace(++last_id_, Watch{fd, events, std::move(ready)});
    return last_id_;
}

void VirtualLoop::change_watch(LoopId watch, unsigned events)
{
    if (auto found = watches_.find(watch); found != watches_.end()) {
        found->second.events = events;
    }
}

void VirtualLoop::unwatch_fd(LoopId watch)
{
    watches_.erase(watch);
}

void VirtualLoop::let_answers_in()
{
    while (expected_ > 0) {
        if (!poll_watches(answer_limit_ms)) {
            throw std::runtime_error("virtual loop: an answer did not come in time");
        }
    }
}

bool VirtualLoop::poll_watches(int limit_ms)
{
    std::vector<pollfd> fds;
    std::vector<LoopId> ids;
    for (const auto &[id, watch] : watches_) {
        const int events = ((watch.events & fd_readable) ? POLLIN : 0) | ((watch.events & fd_writable) ? POLLOUT : 0);
        if (events != 0) {
            fds.push_back({.fd = watch.fd, .events = static_cast<short>(events), .revents = 0});
            ids.push_back(id);
        }
    }
    if (fds.empty() || poll(fds.data(), fds.size(), limit_ms) <= 0) {
        return false;
    }
    for (size_t i = 0; i < fds.size(); i++) {
        const auto found = watches_.find(ids[i]); // an earlier handler may have ended it
        if (fds[i].revents == 0 || found == watches_.end()) {
            continue;
        }
        const unsigned failed = (fds[i].revents & (POLLERR | POLLHUP | POLLNVAL)) ? fd_readable | fd_writable : 0;
        const unsigned ready =
            failed | ((fds[i].revents & POLLIN) ? fd_readable : 0) | ((fds[i].revents & POLLOUT) ? fd_writable : 0);
        const auto handler = found->second.ready; // outlives its watch
        handler(ready & (found->second.events | failed));
    }
    return true;
}

void VirtualLoop::run_tasks()
{
    while (!tasks_.empty()) {
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        task();
    }
}

void VirtualLoop::run_pending()
{
    do {
        run_tasks();
        let_answers_in();
    } while (!tasks_.empty() || (!watches_.empty() && poll_watches(0)) || !tasks_.empty());
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
    watches_.clear();
    expected_ = 0;
}

} // namespace vvl
