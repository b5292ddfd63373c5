#include "platform/sides/packet_side.h"
#include "tests/unit/sides/rig.h"

#include "platform/sides/fan_out.h"

namespace vvl::sides
{
namespace
{

class PacketSideTest : public Rig
{
  protected:
    PacketSideTest() : side(*store, loop, plane) { plane.set_events(&side); }
    ~PacketSideTest() override { plane.set_events(nullptr); }

    void start()
    {
        std::string why;
        ASSERT_TRUE(side.start(why)) << why;
        loop.run_pending();
    }

    PacketSide side;
};

TEST_F(PacketSideTest, FirstVoiceFrameOfATrappedPortIsPublishedOnce)
{
    start();
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

    set_trap(1, false);
    receive(0x101, phone);
    EXPECT_EQ(take_told(), Lines{}) << "the trap is gone";
    EXPECT_EQ(plane.counters(0x101).trapped, 2u);
}

TEST_F(PacketSideTest, SettingTheTrapAgainArmsItAgain)
{
    start();
    set_trap(1);
    receive(0x101, phone);
    set_trap(1);
    receive(0x101, phone);
    EXPECT_EQ(take_told(), (Lines{"publish 257", "publish 257"}));
}

TEST_F(PacketSideTest, TrapsSetBeforeTheStartAreTakenUp)
{
    set_trap(2);
    start();
    receive(0x102, phone);
    EXPECT_EQ(take_told(), Lines{"publish 258"});
}

TEST_F(PacketSideTest, NotificationThatTheStoreRefusedIsPublishedWithTheNextFrame)
{
    start();
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
    start();
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
    EXPECT_EQ(plane.counters(0x103).trapped, 0u);
}

TEST_F(PacketSideTest, TrapOfAnUnknownPortIsRefused)
{
    start();
    set_trap(99);
    EXPECT_EQ(side.counters().port_unknown, 1u);
    set_trap(1);
    receive(0x101, phone);
    EXPECT_EQ(take_told(), Lines{"publish 257"});
}

TEST(FanOutTest, EveryListenerIsToldOfBothEvents)
{
    struct Listener : fp::PlaneEvents {
        void voice_trapped(uint32_t phyid, const Mac &, std::span<const uint8_t>) override { sum += phyid; }
        void mac_seen(uint16_t vlan, const Mac &, uint32_t) override { sum += vlan; }
        uint32_t sum = 0;
    } first, second;
    FanOut fan_out({&first, &second});
    fan_out.voice_trapped(1000, phone, {});
    fan_out.mac_seen(10, phone, 1);
    EXPECT_EQ(first.sum, 1010u);
    EXPECT_EQ(second.sum, 1010u);
}

} // namespace
} // namespace vvl::sides
