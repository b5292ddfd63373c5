// The agent: loading and unloading modules of every temper. What a module left
// behind would be called after its code is gone, so each test that unloads
// lets time pass afterwards.
#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/fp/soft/plane_soft.h"
#include "platform/host/agent.h"
#include "platform/host/services.h"
#include "platform/mom/local/store_local.h"
#include "platform/mom/store.h"

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

    Agent &use(const std::string &name)
    {
        module = MODULE_DIR "/" + name + ".so";
        agent = std::make_unique<Agent>(loop, *store, manager, ports, module);
        return *agent;
    }

    std::vector<std::string> take_lines() { return std::exchange(lines, {}); }

    std::vector<std::string> lines;  // of the module
    std::vector<std::string> errors; // of the platform
    VirtualLoop loop;
    std::unique_ptr<mom::Store> store = mom::make_local_store();
    fp::SoftPlane plane{loop};
    fp::Manager manager{plane, loop};
    std::vector<PortId> ports{{1, 0x101}};
    std::string module;
    std::unique_ptr<Agent> agent;
};

using Lines = std::vector<std::string>;

TEST_F(AgentTest, a_failed_load_names_the_step_and_leaves_nothing_behind)
{
    const std::pair<const char *, const char *> rows[] = {
        {"module_without_hook", "it has no function udp_vvlan_rdnd_aware_callback"},
        {"module_zlog_fails", "udp_vvlan_zlog_init failed with -17"},
        {"module_hook_fails", "udp_vvlan_rdnd_aware_callback failed with -5"},
    };
    for (const auto &[name, reason] : rows) {
        Agent &failing = use(name);
        for (int attempt = 0; attempt < 2; attempt++) { // the second finds no trace of the first
            std::string why;
            EXPECT_FALSE(failing.load(why));
            EXPECT_EQ(why, "module '" + module + "': " + reason);
            EXPECT_FALSE(failing.loaded());
            EXPECT_TRUE(failing.debug_commands().empty()) << name;
            loop.advance(10'000'000);
            EXPECT_EQ(take_lines(), Lines{}) << name;
        }
    }
    EXPECT_EQ(errors, Lines{});
}

TEST_F(AgentTest, unloading_silences_the_module_and_loading_again_starts_it_afresh)
{
    Agent &good = use("module_good");
    std::string why;
    for (int round = 0; round < 2; round++) {
        ASSERT_TRUE(good.load(why)) << why;
        EXPECT_EQ(take_lines(), Lines{}) << "called from inside the load";
        EXPECT_FALSE(good.load(why));
        EXPECT_EQ(why, "module '" + module + "': it is already loaded");
        EXPECT_EQ(good.debug_commands().size(), 1u);
        loop.advance(2'500'000);
        EXPECT_EQ(take_lines(), (Lines{"connected 1", "tick 1", "tick 2", "tick 3"}));
        good.unload();
        EXPECT_FALSE(good.loaded());
        EXPECT_TRUE(good.debug_commands().empty());
        loop.advance(10'000'000);
        EXPECT_EQ(take_lines(), Lines{});
    }
    EXPECT_EQ(errors, Lines{});
}

TEST_F(AgentTest, a_module_that_stays_in_memory_is_reported)
{
    Agent &staying = use("module_stays");
    std::string why;
    ASSERT_TRUE(staying.load(why)) << why;
    staying.unload();
    EXPECT_EQ(errors, (Lines{"module '" + module + "': still in memory after unloading"}));
}

} // namespace
