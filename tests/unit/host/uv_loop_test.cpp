// The loop on the real clock. The timers are short and the order is all that
// is asserted: how long anything takes is the machine's business.
#include "platform/host/uv_loop.h"

#include "tests/unit/base/watch_a_socket.h"

#include <gtest/gtest.h>

#include <csignal>
#include <functional>
#include <string>
#include <vector>

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
    loop.add_timer(1000, note("sooner"));
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

TEST_F(UvLoopTest, cancelled_timers_do_not_run_even_when_they_are_due)
{
    const LoopId first = loop.add_timer(500, note("cancelled before"));
    LoopId same_time = 0;
    loop.add_timer(1000, [&] { loop.cancel_timer(same_time); });
    same_time = loop.add_timer(1000, note("cancelled by a timer of the same time"));
    const LoopId ran = loop.add_timer(100, note("ran"));
    loop.cancel_timer(first);
    loop.cancel_timer(0);
    loop.add_timer(5000, [&] {
        loop.cancel_timer(ran); // has run already
        loop.stop();
    });
    loop.run();
    EXPECT_EQ(order, (Order{"ran"}));
}

TEST_F(UvLoopTest, a_task_that_posts_itself_does_not_starve_timers)
{
    std::function<void()> again = [&] { loop.post(again); };
    loop.post(again);
    loop.add_timer(1000, end());
    loop.run();
    SUCCEED();
}

TEST_F(UvLoopTest, signals_reach_their_handlers_and_the_loop_runs_again_after_a_stop)
{
    ASSERT_EQ(loop.on_signal(SIGUSR1,
                             [this] {
                                 order.push_back("usr1");
                                 loop.stop();
                             }),
              0);
    EXPECT_LT(loop.on_signal(SIGKILL, note("kill")), 0);
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

TEST_F(UvLoopTest, watched_descriptor_reports_what_is_waited_for_until_it_is_unwatched)
{
    loop.add_timer(50000, end());
    test::watch_a_socket(loop, [this] { loop.run(); });
}

} // namespace
