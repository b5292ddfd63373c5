// The loop on the real clock. The timers are short and the order is all that
// is asserted: how long anything takes depends on the machine.
#include "platform/host/uv_loop.h"

#include "platform/base/virtual_loop.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

using namespace vvl;
using namespace vvl::host;

namespace
{

class UvLoopTest : public testing::Test
{
  protected:
    std::function<void()> note(std::string name)
    {
        return [this, name] { order.push_back(name); };
    }
    std::function<void()> end()
    {
        return [this] { loop.stop(); };
    }

    std::vector<std::string> order;
    UvLoop loop;
};

using Order = std::vector<std::string>;

TEST_F(UvLoopTest, timers_run_by_due_time_then_by_arming_and_after_posted_tasks)
{
    loop.add_timer(3000, note("later"));
    loop.add_timer(3000, note("later too"));
    loop.add_timer(0, note("timer"));
    const LoopId ran = loop.add_timer(1000, note("sooner"));
    loop.cancel_timer(loop.add_timer(500, note("cancelled before")));
    LoopId same_time = 0;
    loop.add_timer(2000, [&] { loop.cancel_timer(same_time); });
    same_time = loop.add_timer(2000, note("cancelled by a timer of the same time"));
    loop.cancel_timer(0);
    loop.add_timer(4000, [&] { loop.cancel_timer(ran); }); // has run already
    const uint64_t due = loop.now_us() + 20000;
    loop.add_timer(20000, end());
    loop.post(note("task 1"));
    loop.post([this] {
        order.push_back("task 2");
        loop.post(note("task of the task"));
    });
    loop.post(note("task 3"));
    EXPECT_TRUE(order.empty()) << "run from inside the call";
    loop.run();
    EXPECT_GE(loop.now_us(), due) << "a timer ran before its time";
    const auto timer = std::find(order.begin(), order.end(), "timer");
    ASSERT_NE(timer, order.end());
    EXPECT_GE(timer - order.begin(), 3) << "before the tasks that were posted";
    order.erase(timer);
    EXPECT_EQ(order, (Order{"task 1", "task 2", "task 3", "task of the task", "sooner", "later", "later too"}));
}

TEST_F(UvLoopTest, a_task_that_posts_itself_does_not_starve_timers)
{
    std::function<void()> again = [&] { loop.post(again); };
    loop.post(again);
    loop.add_timer(1000, end());
    loop.run();
}

TEST_F(UvLoopTest, signals_reach_their_handlers_and_the_loop_runs_again_after_a_stop)
{
    const auto handler = [this] {
        order.push_back("usr1");
        loop.stop();
    };
    ASSERT_EQ(loop.on_signal(SIGUSR1, handler), 0);
    EXPECT_LT(loop.on_signal(SIGKILL, handler), 0);
    for (int round = 0; round < 2; round++) {
        loop.post([] { raise(SIGUSR1); });
        loop.run();
    }
    EXPECT_EQ(order, (Order{"usr1", "usr1"}));
}

TEST_F(UvLoopTest, what_has_not_run_is_dropped_with_the_loop)
{
    auto held = std::make_shared<int>(0);
    {
        UvLoop other;
        other.post([held] { FAIL(); });
        other.add_timer(0, [held] { FAIL(); });
    }
    EXPECT_EQ(held.use_count(), 1);
}

// run lets the loop run until the watch has ended.
void watch_a_socket(Loop &loop, const std::function<void()> &run)
{
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    std::vector<unsigned> seen;
    LoopId watch = 0;
    watch = loop.watch_fd(fds[0], fd_writable, [&](unsigned ready) {
        seen.push_back(ready);
        if (ready == fd_writable) {
            loop.change_watch(watch, fd_readable); // the socket stays writable
            EXPECT_EQ(write(fds[1], "x", 1), 1);
            return;
        }
        char byte = 0;
        EXPECT_EQ(read(fds[0], &byte, 1), seen.size() == 2 ? 1 : 0);
        if (seen.size() == 2) {
            close(fds[1]); // a hang-up is readable too
        } else {
            loop.unwatch_fd(watch); // from inside its own handler
            loop.expect_answers(-1);
            loop.post([&] { close(fds[0]); });
        }
    });
    loop.expect_answers(1);
    run();
    EXPECT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[1], fd_readable);
}

TEST_F(UvLoopTest, every_loop_serves_a_descriptor_until_it_is_unwatched)
{
    VirtualLoop still;
    watch_a_socket(still, [&] { still.run_pending(); });
    EXPECT_EQ(still.now_us(), 0u);
    loop.add_timer(50000, end());
    watch_a_socket(loop, [this] { loop.run(); });
}

} // namespace
