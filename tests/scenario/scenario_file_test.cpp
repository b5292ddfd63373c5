#include "platform/sim/runner.h"
#include "platform/sim/scenario.h"
#include "tests/scenario/temp_folder.h"

#include <gtest/gtest.h>

namespace vvl::sim
{
namespace
{

using namespace oper;

class ScenarioFileTest : public testing::Test
{
  protected:
    bool read(const std::string &text)
    {
        why.clear();
        grammar = scenario_grammar();
        const std::string path = folder.write("s.vv", text);
        const bool done = read_scenario(path, grammar, scenario, why);
        if (why.starts_with(path)) {
            why = why.substr(path.size());
        }
        return done;
    }

    TempFolder folder;
    Grammar grammar;
    Scenario scenario;
    std::string why;
};

TEST_F(ScenarioFileTest, DeclarationsDecideWhichPortsExist)
{
    ASSERT_TRUE(read("port 8 auto\nport 24 disable\n")) << why;
    EXPECT_EQ(scenario.ports().size(), 9u);
    EXPECT_FALSE(read("port 9 auto\n"));
    EXPECT_EQ(why, ":1: port 9 does not exist");

    ASSERT_TRUE(read("ports 10..12\nport-map 40 0x77\nuplink 12\nport 40 auto\n")) << why;
    std::string ports;
    for (const auto &port : scenario.ports()) {
        ports += std::to_string(port.phyid) + (port.uplink ? " uplink, " : ", ");
    }
    EXPECT_EQ(ports, "266, 267, 268 uplink, 119, ");
    EXPECT_FALSE(read("ports 10..12\nport 1 auto\n")) << "the default is gone";
}

TEST_F(ScenarioFileTest, DeclarationsThatDoNotFitAreRefused)
{
    const std::pair<const char *, const char *> cases[] = {
        {"# one\n\nvlan 1 on\nport 1 a\nvlam 1 on\n",
         ":4: 'a' after 'port 1': expected auto, manual, disable or delete"},
        {"vlan 1 on\nports 1..4\n", ":2: a declaration must come before the first command"},
        {"port-map 1 5\nport-map 2 5\n", ":2: ports 1 and 2 have the same physical port"},
        {"port-map 1 5\nport-map 1 6\n", ":2: port 1 is mapped twice"},
        {"ports 1..2000\n", ":1: more than 1024 ports"},
        {"uplink 2\nport 2 manual\n", ":2: port 2 is an uplink, which cannot be a voice port"},
        {"", ": is empty"},
    };
    for (const auto &[text, error] : cases) {
        EXPECT_FALSE(read(text)) << text;
        EXPECT_EQ(why, error) << text;
        EXPECT_TRUE(scenario.steps.empty()) << text;
    }
}

} // namespace
} // namespace vvl::sim
