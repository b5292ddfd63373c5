// libuv provides waiting, the clock and signals. Tasks and timers are ordered
// here, in the same structures as on the virtual loop, because libuv counts whole
// milliseconds and promises no order among equal timers: one libuv timer serves
// the earliest of ours, and one wake-up handle the queue of tasks. A handle must
// live until its close callback has run, so the destructor closes all of them and
// runs the loop once more.
#include "platform/host/uv_loop.h"

#include <uv.h>

#include <deque>
#include <limits>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace vvl::host
{
namespace
{

void check(int result, const char *what)
{
    if (result < 0) {
        throw std::runtime_error(std::string("event loop: ") + what + ": " + uv_strerror(result));
    }
}

} // namespace

struct UvLoop::Impl {
    struct Timer {
        LoopId id;
        std::function<void()> task;
    };
    struct Signal {
        uv_signal_t handle;
        std::function<void()> handler;
    };

    struct Watch {
        uv_poll_t handle;
        std::function<void(unsigned ready)> ready;
    };

    // Runs the tasks that are queued when the call begins. Tasks that these post
    // run in the next round, so a task that posts itself cannot starve timers.
    void run_tasks();
    void run_timers();
    void arm();

    uv_loop_t loop;
    uv_timer_t timer;
    uv_async_t wake;
    uint64_t start_ns = uv_hrtime();
    LoopId last_id = 0;
    std::deque<std::function<void()>> tasks;
    std::multimap<uint64_t, Timer> timers; // by due time in us; equal times keep the order of arming
    std::map<LoopId, std::multimap<uint64_t, Timer>::iterator> timer_by_id;
    std::vector<std::unique_ptr<Signal>> signals;
    std::map<LoopId, Watch *> watches; // each is deleted by its handle's close callback
};

void UvLoop::Impl::run_tasks()
{
    for (size_t left = tasks.size(); left > 0; left--) {
        auto task = std::move(tasks.front());
        tasks.pop_front();
        task();
    }
    if (!tasks.empty()) {
        uv_async_send(&wake);
    }
}

void UvLoop::Impl::run_timers()
{
    const uint64_t now = (uv_hrtime() - start_ns) / 1000;
    run_tasks();
    while (!timers.empty() && timers.begin()->first <= now) {
        auto first = timers.extract(timers.begin());
        timer_by_id.erase(first.mapped().id);
        first.mapped().task();
        run_tasks();
    }
    arm();
}

void UvLoop::Impl::arm()
{
    if (timers.empty()) {
        uv_timer_stop(&timer);
        return;
    }
    const uint64_t now = (uv_hrtime() - start_ns) / 1000;
    const uint64_t due = timers.begin()->first;
    uv_update_time(&loop);
    uv_timer_start(
        &timer, [](uv_timer_t *handle) { static_cast<Impl *>(handle->data)->run_timers(); },
        due > now ? (due - now) / 1000 + 1 : 0, 0);
}

UvLoop::UvLoop() : impl_(std::make_unique<Impl>())
{
    check(uv_loop_init(&impl_->loop), "cannot be created");
    check(uv_timer_init(&impl_->loop, &impl_->timer), "timer");
    check(uv_async_init(&impl_->loop, &impl_->wake,
                        [](uv_async_t *handle) { static_cast<Impl *>(handle->data)->run_tasks(); }),
          "wake-up handle");
    impl_->timer.data = impl_.get();
    impl_->wake.data = impl_.get();
}

UvLoop::~UvLoop()
{
    while (!impl_->watches.empty()) {
        unwatch_fd(impl_->watches.begin()->first);
    }
    auto close_handle = [](uv_handle_t *handle, void *) {
        if (uv_is_closing(handle) == 0) {
            uv_close(handle, nullptr);
        }
    };
    uv_walk(&impl_->loop, close_handle, nullptr);
    uv_run(&impl_->loop, UV_RUN_DEFAULT);
    uv_loop_close(&impl_->loop);
}

uint64_t UvLoop::now_us() const
{
    return (uv_hrtime() - impl_->start_ns) / 1000;
}

void UvLoop::post(std::function<void()> task)
{
    impl_->tasks.push_back(std::move(task));
    uv_async_send(&impl_->wake);
}

LoopId UvLoop::add_timer(uint64_t delay_us, std::function<void()> task)
{
    const uint64_t now = now_us();
    const uint64_t due =
        delay_us > std::numeric_limits<uint64_t>::max() - now ? std::numeric_limits<uint64_t>::max() : now + delay_us;
    const LoopId id = ++impl_->last_id;
    const auto place = impl_->timers.emplace(due, Impl::Timer{id, std::move(task)});
    impl_->timer_by_id.emplace(id, place);
    if (place == impl_->timers.begin()) {
        impl_->arm();
    }
    return id;
}

void UvLoop::cancel_timer(LoopId timer)
{
    const auto found = impl_->timer_by_id.find(timer);
    if (found == impl_->timer_by_id.end()) {
        return;
    }
    impl_->timers.erase(found->second);
    impl_->timer_by_id.erase(found);
    impl_->arm();
}

// libuv reports a failed descriptor by a status instead of events; the handler's
// own read or write then returns the error.
LoopId UvLoop::watch_fd(int fd, unsigned events, std::function<void(unsigned ready)> ready)
{
    auto watch = std::make_unique<Impl::Watch>();
    watch->ready = std::move(ready);
    check(uv_poll_init(&impl_->loop, &watch->handle, fd), "descriptor");
    watch->handle.data = watch.get();
    const LoopId id = ++impl_->last_id;
    impl_->watches.emplace(id, watch.release());
    change_watch(id, events);
    return id;
}

void UvLoop::change_watch(LoopId watch, unsigned events)
{
    const auto found = impl_->watches.find(watch);
    if (found == impl_->watches.end()) {
        return;
    }
    uv_poll_t *handle = &found->second->handle;
    if (events == 0) {
        uv_poll_stop(handle);
        return;
    }
    const int wanted = ((events & fd_readable) ? UV_READABLE : 0) | ((events & fd_writable) ? UV_WRITABLE : 0);
    uv_poll_start(handle, wanted, [](uv_poll_t *h, int status, int seen) {
        const auto handler = static_cast<Impl::Watch *>(h->data)->ready; // outlives its watch
        handler(status < 0 ? fd_readable | fd_writable
                           : ((seen & UV_READABLE) ? fd_readable : 0) | ((seen & UV_WRITABLE) ? fd_writable : 0));
    });
}

void UvLoop::unwatch_fd(LoopId watch)
{
    const auto found = impl_->watches.find(watch);
    if (found == impl_->watches.end()) {
        return;
    }
    uv_close(reinterpret_cast<uv_handle_t *>(&found->second->handle),
             [](uv_handle_t *handle) { delete static_cast<Impl::Watch *>(handle->data); });
    impl_->watches.erase(found);
}

int UvLoop::on_signal(int signal, std::function<void()> handler)
{
    auto record = std::make_unique<Impl::Signal>();
    record->handler = std::move(handler);
    record->handle.data = record.get();
    int result = uv_signal_init(&impl_->loop, &record->handle);
    if (result < 0) {
        return result;
    }
    impl_->signals.push_back(std::move(record));
    uv_signal_t *handle = &impl_->signals.back()->handle;
    return uv_signal_start(
        handle, [](uv_signal_t *h, int) { static_cast<Impl::Signal *>(h->data)->handler(); }, signal);
}

void UvLoop::run()
{
    uv_run(&impl_->loop, UV_RUN_DEFAULT);
}

void UvLoop::stop()
{
    uv_stop(&impl_->loop);
}

} // namespace vvl::host
