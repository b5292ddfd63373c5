// The global context and its timers.
//
// A timer's record lives in its master's list until it fires or is cancelled,
// so no timer outlives the module whose function it calls.
#include "platform/base/log.h"
#include "platform/host/services.h"

using vvl::LogLevel;

tq_thread_t *tq_thread_master::add(uint64_t delay_us, tq_thread_func_t func, void *arg, std::string name)
{
    if (timers_.size() >= TQ_THREAD_TIMER_COUNT_MAX) {
        vvl::log_line(LogLevel::error,
                      "timer '" + name + "': " + std::to_string(timers_.size()) + " timers are already armed");
        return nullptr;
    }
    const uint64_t key = ++last_key_;
    auto timer = std::make_unique<Timer>(Timer{{arg}, 0, func, std::move(name)});
    timer->id = loop_.add_timer(delay_us, [this, key] { fire(key); });
    return &timers_.emplace(key, std::move(timer)).first->second->handle;
}

void tq_thread_master::fire(uint64_t key)
{
    // Leaves the list first: the callback may arm the timer again, or finish the host.
    auto timer = std::move(timers_.extract(key).mapped());
    timer->func(&timer->handle);
}

void tq_thread_master::cancel_all()
{
    for (auto &[key, timer] : timers_) {
        loop_.cancel_timer(timer->id);
    }
    timers_.clear();
}

std::vector<std::string> tq_thread_master::names() const
{
    std::vector<std::string> names;
    for (const auto &[key, timer] : timers_) {
        names.push_back(timer->name);
    }
    return names;
}

tq_thread_t *tq_thread_add_timer_timeval_withname(struct tq_thread_master *master, tq_thread_func_t func, void *arg,
                                                  const struct timeval *interval, const char *name)
{
    if (master == nullptr || func == nullptr || interval == nullptr || interval->tv_sec < 0 || interval->tv_usec < 0 ||
        interval->tv_sec > TQ_THREAD_INTERVAL_S_MAX || interval->tv_usec >= 1000000) {
        return nullptr;
    }
    const auto delay_us = static_cast<uint64_t>(interval->tv_sec) * 1000000 + static_cast<uint64_t>(interval->tv_usec);
    return master->add(delay_us, func, arg, name != nullptr ? name : "");
}

void tq_global_finish(void *ctx)
{
    if (ctx == nullptr) {
        return;
    }
    auto *host = static_cast<vvl::host::HostContext *>(static_cast<tq_global_t *>(ctx)->host);
    if (host != nullptr && !host->finishing) {
        host->finishing = true;
        vvl::log_line(LogLevel::error, "module: requests that the host finishes");
    }
    vvl::host::flush_zlog();
}
