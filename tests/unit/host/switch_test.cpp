// The switch as a whole: starting, stopping and starting again.
#include "platform/base/virtual_loop.h"
#include "platform/host/services.h"
#include "platform/host/switch.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace vvl;
using namespace vvl::host;

namespace
{

SwitchConfig config_with(const std::string &module)
{
    return {MODULE_DIR "/" + module + ".so", {{1, 0x101, 1, false}, {24, 0x118, 1, true}}};
}

TEST(Switch, a_failed_start_leaves_it_stopped)
{
    VirtualLoop loop;
    Switch target(config_with("module_hook_fails"), loop);
    for (int attempt = 0; attempt < 2; attempt++) {
        std::string why;
        EXPECT_FALSE(target.start(why));
        EXPECT_NE(why.find("udp_vvlan_rdnd_aware_callback failed with -5"), std::string::npos) << why;
        loop.advance(1'000'000);
    }
}

TEST(Switch, starts_again_after_a_stop_and_goes_while_it_runs)
{
    std::vector<std::string> lines;
    set_zlog_sink({[&](const ZlogLine &line) { lines.push_back(line.text); }, {}});
    VirtualLoop loop;
    {
        Switch target(config_with("module_good"), loop);
        std::string why;
        for (int round = 0; round < 2; round++) {
            ASSERT_TRUE(target.start(why)) << why;
            EXPECT_FALSE(target.start(why));
            EXPECT_EQ(why, "switch: it is running already");
            loop.advance(500'000);
            target.stop();
            loop.advance(10'000'000);
        }
        EXPECT_EQ(lines, (std::vector<std::string>{"connected 1", "tick 1", "connected 1", "tick 1"}));
        ASSERT_TRUE(target.start(why)) << why;
    }
    loop.advance(10'000'000);
    EXPECT_EQ(lines.size(), 4u);
    set_zlog_sink({});
}

TEST(Switch, a_port_whose_link_is_down_takes_no_frames)
{
    VirtualLoop loop;
    Switch target(config_with("module_good"), loop);
    std::vector<uint8_t> frame(64, 0x02);
    std::fill_n(frame.begin(), 6, uint8_t{0xff}); // broadcast
    EXPECT_FALSE(target.set_port_link(2, false));
    for (bool up : {true, false, true}) {
        ASSERT_TRUE(target.set_port_link(1, up));
        const auto out = target.plane().counters(0x118).out;
        target.plane().receive(0x101, frame);
        EXPECT_EQ(target.plane().counters(0x118).out, out + (up ? 1 : 0));
    }
}

} // namespace
