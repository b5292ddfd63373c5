#include "platform/sides/packet_side.h"
#include "tests/unit/sides/rig.h"

namespace vvl::sides
{
namespace
{

class PacketSideTest : public Rig
{
  protected:
    PacketSideTest() : side(*store, loop, plane) { plane.set_events(&side); }
    ~PacketSideTest() override { plane.set_events(nullptr); }

    PacketSide side;
};

TEST_F(PacketSideTest, FirstVoiceFrameOfATrappedPortIsPublishedOnce)
{
    start(side);
    receive(0x101, phone);
    EXPECT_EQ(take_told(), Lines{}) << "no trap yet";
    set_trap(1);
    receive(0x102, phone);
    EXPECT_EQ(take_told(), Lines{}) << "another port";
    receive(0x101, pc);
    EXPECT_EQ(take_told(), Lines{}) << "not a voice device";
    receive(0x101, phone);
    receive(0x101, phone);
    EXPECT_EQ(take_told(), Lines{"publish 257"});
    set_trap(1); // arms it again
    receive(0x101, phone);
    EXPECT_EQ(take_told(), Lines{"publish 257"});

    set_trap(1, false);
    receive(0x101, phone);
    EXPECT_EQ(take_told(), Lines{}) << "the trap is gone";
    EXPECT_EQ(plane.counters(0x101).trapped, 3u);
    set_trap(99);
    EXPECT_EQ(side.counters().port_unknown, 1u);
}

TEST_F(PacketSideTest, NotificationThatTheStoreRefusedIsPublishedWithTheNextFrame)
{
    start(side);
    set_trap(1);
    mom::set_link(side.client(), 0, false);
    receive(0x101, phone);
    EXPECT_EQ(side.counters().publish_failed, 1u);
    mom::set_link(side.client(), 0, true);
    loop.run_pending();
    receive(0x101, phone);
    EXPECT_EQ(take_told(), Lines{"publish 257"});
}

TEST_F(PacketSideTest, ReconnectionFindsTrapsSetAndRemovedMeanwhile)
{
    set_trap(3); // known from the scan alone
    start(side);
    receive(0x103, phone);
    EXPECT_EQ(take_told(), Lines{"publish 259"});
    set_trap(1);
    mom::set_link(side.client(), 8, false);
    loop.run_pending();
    set_trap(1, false);
    set_trap(3, false);
    set_trap(2);
    mom::set_link(side.client(), 8, true);
    loop.run_pending();
    for (uint32_t phyid : {0x101, 0x102, 0x103}) {
        receive(phyid, phone);
    }
    EXPECT_EQ(take_told(), Lines{"publish 258"});
    EXPECT_EQ(plane.counters(0x101).trapped, 0u);
    EXPECT_EQ(plane.counters(0x103).trapped, 1u) << "as before the link was cut";
}

} // namespace
} // namespace vvl::sides
