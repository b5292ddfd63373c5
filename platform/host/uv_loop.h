// The event loop on libuv and the real monotonic clock.
#pragma once

#include "platform/base/loop.h"

#include <functional>
#include <memory>

namespace vvl::host
{

class UvLoop final : public Loop
{
  public:
    // Throws std::runtime_error where the system refuses what a loop needs.
    UvLoop();
    ~UvLoop() override; // drops tasks and timers; must not be called from a callback

    uint64_t now_us() const override;
    void post(std::function<void()> task) override;
    LoopId add_timer(uint64_t delay_us, std::function<void()> task) override;
    void cancel_timer(LoopId timer) override;
    // Throws std::runtime_error for a descriptor that cannot be waited for.
    LoopId watch_fd(int fd, unsigned events, std::function<void(unsigned ready)> ready) override;
    void change_watch(LoopId watch, unsigned events) override;
    void unwatch_fd(LoopId watch) override;

    // Calls handler from the loop for each signal of this number. Returns 0 or
    // a negative libuv code.
    int on_signal(int signal, std::function<void()> handler);

    // Runs until stop() is called from a task, a timer or a signal handler.
    void run();
    void stop();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::host
