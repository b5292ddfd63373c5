// The switch as a whole: starting, stopping and starting again.
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

TEST(Switch, starts_again_after_a_stop_and_goes_while_it_runs)
{
    std::vector<std::string> lines;
    set_zlog_sink({[&](const ZlogLine &line) { lines.push_back(line.text); }, {}});
    VirtualLoop loop;
    {
        Switch target({MODULE_DIR "/module_good.so", {{1, 0x101, 1, false}}}, loop, mom::make_local_store(),
                      std::make_unique<fp::SoftPlane>(loop));
        std::string why;
        for (int round = 0; round < 2; round++) {
            ASSERT_TRUE(target.start(why)) << why;
            EXPECT_FALSE(target.start(why));
            EXPECT_EQ(why, "switch: it is already running");
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

} // namespace
