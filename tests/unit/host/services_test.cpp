// The services that a module calls: timers, debug commands, the port-id map
// and the log.
#include "libddm.h"
#include "platform/base/virtual_loop.h"
#include "platform/host/services.h"

#include <gtest/gtest.h>

#include <climits>

using namespace vvl;
using namespace vvl::host;

namespace
{

// ---- Timers ------------------------------------------------------------

struct Firing {
    tq_thread_master *master;
    std::vector<uint64_t> times;
    VirtualLoop *loop;
    bool again;
};

int note_firing(tq_thread_t *thread)
{
    auto *firing = static_cast<Firing *>(thread->arg);
    firing->times.push_back(firing->loop->now_us());
    const timeval interval = {60, 0};
    if (firing->again) {
        firing->again = false;
        tq_thread_add_timer_timeval_withname(firing->master, note_firing, firing, &interval, "again");
    }
    return 1;
}

TEST(Timers, fire_once_at_their_time_and_may_arm_themselves_again)
{
    VirtualLoop loop;
    HostContext context(loop);
    Firing firing{context.global.master, {}, &loop, true};
    const timeval interval = {1, 500000};
    ASSERT_NE(tq_thread_add_timer_timeval_withname(context.global.master, note_firing, &firing, &interval, nullptr),
              nullptr);
    EXPECT_TRUE(firing.times.empty()) << "called from inside the arming call";
    loop.advance(200'000'000);
    EXPECT_EQ(firing.times, (std::vector<uint64_t>{1'500'000, 61'500'000}));
}

TEST(Timers, cancelling_all_leaves_other_contexts_alone)
{
    VirtualLoop loop;
    HostContext gone(loop);
    HostContext staying(loop);
    Firing firing{staying.global.master, {}, &loop, false};
    const timeval interval = {5, 0};
    for (HostContext *context : {&gone, &gone, &staying}) {
        tq_thread_add_timer_timeval_withname(context->global.master, note_firing, &firing, &interval, "age");
    }
    EXPECT_EQ(gone.master.names(), (std::vector<std::string>{"age", "age"}));
    gone.master.cancel_all();
    loop.advance(10'000'000);
    EXPECT_EQ(firing.times.size(), 1u);
    EXPECT_TRUE(staying.master.names().empty());
}

TEST(Timers, refuse_missing_arguments_bad_intervals_and_one_too_many)
{
    VirtualLoop loop;
    HostContext context(loop);
    tq_thread_master *master = context.global.master;
    const timeval good = {0, 0};
    auto add = [](tq_thread_master *to, tq_thread_func_t func, const timeval *interval) {
        return tq_thread_add_timer_timeval_withname(to, func, nullptr, interval, "");
    };
    EXPECT_EQ(add(nullptr, note_firing, &good), nullptr);
    EXPECT_EQ(add(master, nullptr, &good), nullptr);
    EXPECT_EQ(add(master, note_firing, nullptr), nullptr);
    for (const timeval &bad : {timeval{-1, 0}, timeval{0, -1}, timeval{0, 1000000}, timeval{INT_MAX, 0}}) {
        EXPECT_EQ(add(master, note_firing, &bad), nullptr) << bad.tv_sec << " s " << bad.tv_usec << " us";
    }
    for (unsigned i = 0; i < TQ_THREAD_TIMER_COUNT_MAX; i++) {
        ASSERT_NE(add(master, note_firing, &good), nullptr);
    }
    EXPECT_EQ(add(master, note_firing, &good), nullptr);
}

// ---- Debug commands ----------------------------------------------------

int last_number;
int calls;

void take_nothing()
{
    calls++;
}

void take_number(int number)
{
    calls++;
    last_number = number;
}

TEST(DebugCommands, are_registered_by_the_shape_of_their_argument_description)
{
    DebugCommands commands;
    for (const char *good : {"void", "void  :help", "level=%d ", "ifx=%d  :", "log-level=%d"}) {
        EXPECT_EQ(commands.add(good, 0, good, take_nothing), 0) << good;
    }
    for (const char *bad :
         {"", " ", "void:help", "voids", "level", "=%d", "level=%s", "level=%d%d", "a b=%d", "l=%d:x"}) {
        EXPECT_EQ(commands.add("bad", 0, bad, take_nothing), -4) << bad;
    }
    EXPECT_EQ(commands.add(nullptr, 0, "void", take_nothing), -4);
    EXPECT_EQ(commands.add("", 0, "void", take_nothing), -4);
    EXPECT_EQ(commands.add("x", 0, nullptr, take_nothing), -4);
    EXPECT_EQ(commands.add("x", 0, "void", nullptr), -4);
    EXPECT_EQ(commands.add("x", 1, "void", take_nothing), -4);
    EXPECT_EQ(commands.add("void", 0, "void", take_nothing), -17);
    EXPECT_EQ(commands.list().size(), 5u) << "a refused command is not there";
    for (unsigned i = 5; i < SSAT_COMMAND_COUNT_MAX; i++) {
        ASSERT_EQ(commands.add(std::to_string(i).c_str(), 0, "void", take_nothing), 0);
    }
    EXPECT_EQ(commands.add("last", 0, "void", take_nothing), -6);
}

TEST(DebugCommands, hand_over_an_integer_of_the_whole_range_and_nothing_else)
{
    DebugCommands commands;
    commands.add("set", 0, "level=%d  :", reinterpret_cast<ssat_handler_t>(take_number));
    commands.add("show", 0, "void  :", take_nothing);
    std::string why;
    for (const int value : {0, INT_MAX, INT_MIN}) {
        last_number = value == 1 ? 2 : 1;
        EXPECT_TRUE(commands.run("set", std::to_string(value), why)) << why;
        EXPECT_EQ(last_number, value);
    }
    calls = 0;
    for (const char *bad : {"", "1x", "2147483648", "-2147483649"}) {
        EXPECT_FALSE(commands.run("set", bad, why)) << bad;
        EXPECT_EQ(why, "debug command 'set': level must be an integer, not '" + std::string(bad) + "'");
    }
    EXPECT_FALSE(commands.run("show", "1", why));
    EXPECT_FALSE(commands.run("sho", "", why));
    EXPECT_EQ(calls, 0);
}

// ---- Port-id map -------------------------------------------------------

TEST(PortMap, answers_both_ways_and_keeps_its_rows_where_new_ones_are_not_one_to_one)
{
    const PortId ports[] = {{1, 0x101}, {2, 1}};
    const PortId same_phyid[] = {{3, 30}, {4, 30}};
    const PortId same_ifx[] = {{3, 30}, {3, 31}};
    ASSERT_TRUE(set_port_map(ports));
    EXPECT_FALSE(set_port_map(same_phyid));
    EXPECT_FALSE(set_port_map(same_ifx));
    uint32_t result = 99;
    EXPECT_EQ(libddm_get_phyid_by_ifx(3, &result), -7);
    EXPECT_EQ(libddm_get_ifx_by_phyid(2, &result), -7);
    EXPECT_EQ(libddm_get_phyid_by_ifx(1, nullptr), -4);
    EXPECT_EQ(result, 99u);
    EXPECT_EQ(libddm_get_phyid_by_ifx(1, &result), 0);
    EXPECT_EQ(result, 0x101u);
    EXPECT_EQ(libddm_get_ifx_by_phyid(1, &result), 0);
    EXPECT_EQ(result, 2u);
    set_port_map({});
}

// ---- Log ---------------------------------------------------------------

class ZlogTest : public testing::Test
{
  protected:
    ZlogTest()
    {
        set_zlog_sink({[this](const ZlogLine &line) {
                           lines.push_back(line.category + "|" + line.file + "|" + line.function + "|" +
                                           std::to_string(line.level) + "|" + line.text);
                       },
                       [this] { flushes++; }});
    }
    ~ZlogTest() override { set_zlog_sink({}); }

    std::vector<std::string> lines;
    int flushes = 0;
};

TEST_F(ZlogTest, a_line_stays_one_line_and_its_names_end_at_their_length)
{
    void *category = tq_zlog_init("vvlan");
    ASSERT_NE(category, nullptr);
    EXPECT_EQ(tq_zlog_init("vvlan"), category);
    const char file[] = {'a', '.', 'c', 'X'}; // not terminated
    tqdf_zlog(category, file, 3, "init", 400, 7, TQ_ZLOG_WARN, "one\ntwo\033[31m %d %s\r\n\n", 3, "four");
    tqdf_zlog(nullptr, file, 3, "f", 1, 7, TQ_ZLOG_WARN, "lost");
    tqdf_zlog(category, file, 3, "f", 1, 7, TQ_ZLOG_WARN, nullptr);
    EXPECT_EQ(lines, (std::vector<std::string>{"vvlan|a.c|init|80|one two [31m 3 four"}));
}

TEST_F(ZlogTest, an_unknown_level_counts_as_the_next_lower_one)
{
    void *category = tq_zlog_init("vvlan");
    for (int level : {INT_MIN, 39, 59, 61, 99, 100, 119, INT_MAX}) {
        tqdf_zlog(category, "", 0, "", 0, 1, level, "x");
    }
    std::vector<std::string> expected;
    for (const char *level : {"20", "20", "40", "60", "80", "100", "100", "120"}) {
        expected.push_back("vvlan|||" + std::string(level) + "|x");
    }
    EXPECT_EQ(lines, expected);
}

TEST_F(ZlogTest, finishing_a_context_flushes_and_tolerates_contexts_without_a_host)
{
    VirtualLoop loop;
    HostContext context(loop);
    tq_global_finish(nullptr);
    EXPECT_EQ(flushes, 0);
    tq_global_t foreign = {};
    tq_global_finish(&foreign);
    tq_global_finish(&context.global);
    EXPECT_TRUE(context.finishing);
    EXPECT_EQ(flushes, 2);
}

} // namespace
