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

class Timers : public testing::Test
{
  protected:
    static int note_firing(tq_thread_t *thread)
    {
        auto *test = static_cast<Timers *>(thread->arg);
        test->firings.push_back(test->loop.now_us());
        if (test->arms_again) {
            test->arms_again = false;
            test->add(test->context, {60, 0}, "again");
        }
        return 1;
    }

    tq_thread_t *add(HostContext &to, timeval interval, const char *name)
    {
        return tq_thread_add_timer_timeval_withname(to.global.master, note_firing, this, &interval, name);
    }

    VirtualLoop loop;
    HostContext context{loop};
    std::vector<uint64_t> firings;
    bool arms_again = false;
};

TEST_F(Timers, fire_once_at_their_time_and_may_arm_themselves_again)
{
    arms_again = true;
    ASSERT_NE(add(context, {1, 500000}, nullptr), nullptr);
    EXPECT_TRUE(firings.empty()) << "called from inside the arming call";
    loop.advance(200'000'000);
    EXPECT_EQ(firings, (std::vector<uint64_t>{1'500'000, 61'500'000}));
}

TEST_F(Timers, cancelling_all_leaves_other_contexts_alone)
{
    HostContext staying(loop);
    for (HostContext *to : {&context, &context, &staying}) {
        add(*to, {5, 0}, "age");
    }
    EXPECT_EQ(context.master.names(), (std::vector<std::string>{"age", "age"}));
    context.master.cancel_all();
    loop.advance(10'000'000);
    EXPECT_EQ(firings.size(), 1u);
    EXPECT_TRUE(staying.master.names().empty());
}

TEST_F(Timers, refuse_missing_arguments_bad_intervals_and_one_too_many)
{
    tq_thread_master *master = context.global.master;
    const timeval good = {0, 0};
    EXPECT_EQ(tq_thread_add_timer_timeval_withname(nullptr, note_firing, this, &good, ""), nullptr);
    EXPECT_EQ(tq_thread_add_timer_timeval_withname(master, nullptr, this, &good, ""), nullptr);
    EXPECT_EQ(tq_thread_add_timer_timeval_withname(master, note_firing, this, nullptr, ""), nullptr);
    for (const timeval &bad : {timeval{-1, 0}, timeval{0, -1}, timeval{0, 1000000}, timeval{INT_MAX, 0}}) {
        EXPECT_EQ(add(context, bad, ""), nullptr) << bad.tv_sec << " s " << bad.tv_usec << " us";
    }
    for (unsigned i = 0; i < TQ_THREAD_TIMER_COUNT_MAX; i++) {
        ASSERT_NE(add(context, good, ""), nullptr);
    }
    EXPECT_EQ(add(context, good, ""), nullptr);
}

// ---- Debug commands ----------------------------------------------------

std::vector<int> calls; // with their numbers; -1: without one

void take_nothing()
{
    calls.push_back(-1);
}

void take_number(int number)
{
    calls.push_back(number);
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
    for (const char *good : {"0", "2147483647", "-2147483648"}) {
        EXPECT_TRUE(commands.run("set", good, why)) << why;
    }
    EXPECT_TRUE(commands.run("show", "", why)) << why;
    for (const char *bad : {"", "1x", "2147483648", "-2147483649"}) {
        EXPECT_FALSE(commands.run("set", bad, why)) << bad;
        EXPECT_EQ(why, "debug command 'set': level must be an integer, not '" + std::string(bad) + "'");
    }
    EXPECT_FALSE(commands.run("show", "1", why));
    EXPECT_FALSE(commands.run("sho", "", why));
    EXPECT_EQ(calls, (std::vector<int>{0, INT_MAX, INT_MIN, -1}));
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
    uint32_t phyid = 99;
    uint32_t ifx = 99;
    EXPECT_EQ(libddm_get_phyid_by_ifx(3, &phyid), -7);
    EXPECT_EQ(libddm_get_ifx_by_phyid(2, &ifx), -7);
    EXPECT_EQ(libddm_get_phyid_by_ifx(1, nullptr), -4);
    EXPECT_EQ(std::make_pair(phyid, ifx), std::make_pair(99u, 99u));
    EXPECT_EQ(libddm_get_phyid_by_ifx(1, &phyid), 0);
    EXPECT_EQ(libddm_get_ifx_by_phyid(1, &ifx), 0);
    EXPECT_EQ(std::make_pair(phyid, ifx), std::make_pair(0x101u, 2u));
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
