// The agent in its switch: loading and unloading modules of every temper. What a
// module left behind would be called after its code is gone, so each test that
// unloads lets time pass afterwards.
#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/fp/soft/plane_soft.h"
#include "platform/host/services.h"
#include "platform/host/switch.h"
#include "platform/mom/local/store_local.h"

#include <gtest/gtest.h>

using namespace vvl;
using namespace vvl::host;

namespace
{

class AgentTest : public testing::Test
{
  protected:
    AgentTest()
    {
        set_zlog_sink({[this](const ZlogLine &line) { lines.push_back(line.text); }, {}});
        set_log_sink([this](LogLevel level, const std::string &text) {
            if (level == LogLevel::error) {
                errors.push_back(text);
            }
        });
    }
    ~AgentTest() override
    {
        set_log_sink({});
        set_zlog_sink({});
    }

    // Makes a switch with this module.
    Agent &use(const std::string &name)
    {
        target.reset(); // a process has one
        module = MODULE_DIR "/" + name + ".so";
        target = std::make_unique<Switch>(SwitchConfig{module, {{1, 0x101, 1, false}}}, loop, mom::make_local_store(),
                                          std::make_unique<fp::SoftPlane>(loop));
        return target->agent();
    }

    std::vector<std::string> lines_of_s(uint64_t seconds)
    {
        loop.advance(seconds * 1'000'000);
        return std::exchange(lines, {});
    }

    std::vector<std::string> lines;  // of the module
    std::vector<std::string> errors; // of the platform
    VirtualLoop loop;
    std::string module;
    std::unique_ptr<Switch> target;
    std::string why;
};

using Lines = std::vector<std::string>;

TEST_F(AgentTest, a_failed_start_names_the_step_and_leaves_nothing_behind)
{
    const std::pair<const char *, const char *> rows[] = {
        {"module_without_hook", "it has no function udp_vvlan_rdnd_aware_callback"},
        {"module_zlog_fails", "udp_vvlan_zlog_init failed with -17"},
        {"module_hook_fails", "udp_vvlan_rdnd_aware_callback failed with -5"},
    };
    for (const auto &[name, reason] : rows) {
        Agent &agent = use(name);
        for (int attempt = 0; attempt < 2; attempt++) { // the second finds no trace of the first
            EXPECT_FALSE(target->start(why));
            EXPECT_EQ(why, "module '" + module + "': " + reason);
            EXPECT_FALSE(agent.loaded());
            EXPECT_TRUE(agent.debug_commands().empty()) << name;
            EXPECT_EQ(lines_of_s(10), Lines{}) << name;
        }
    }
    EXPECT_EQ(errors, Lines{});
}

TEST_F(AgentTest, stopping_silences_the_module_and_starting_again_begins_afresh)
{
    Agent &agent = use("module_good");
    for (int round = 0; round < 2; round++) {
        ASSERT_TRUE(target->start(why)) << why;
        EXPECT_EQ(lines, Lines{}) << "called from inside the start";
        EXPECT_FALSE(agent.load(why));
        EXPECT_EQ(why, "module '" + module + "': it is already loaded");
        EXPECT_FALSE(target->start(why));
        EXPECT_EQ(why, "switch: it is already running");
        EXPECT_EQ(agent.debug_commands().size(), 1u);
        EXPECT_EQ(lines_of_s(2), (Lines{"connected 1", "tick 1", "tick 2"}));
        target->stop();
        EXPECT_FALSE(agent.loaded());
        EXPECT_TRUE(agent.debug_commands().empty());
        EXPECT_EQ(lines_of_s(10), Lines{});
    }
    ASSERT_TRUE(target->start(why)) << why;
    target.reset(); // while it runs
    EXPECT_EQ(lines_of_s(10), Lines{});
    EXPECT_EQ(errors, Lines{});
}

TEST_F(AgentTest, a_module_that_stays_in_memory_is_reported)
{
    use("module_stays");
    ASSERT_TRUE(target->start(why)) << why;
    target->stop();
    EXPECT_EQ(errors, (Lines{"module '" + module + "': still in memory after unloading"}));
}

} // namespace
