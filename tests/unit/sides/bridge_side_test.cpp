#include "platform/sides/bridge_side.h"
#include "tests/unit/sides/rig.h"

namespace vvl::sides
{
namespace
{

constexpr uint64_t second_us = 1'000'000;
constexpr const char *phone_key = "100/0/00:04:76:22:20:17";
constexpr const char *pc_key = "100/0/00:1b:21:00:00:01";

class BridgeSideTest : public Rig
{
  protected:
    BridgeSideTest() : side(*store, loop, plane) {}

    static std::string set_line(const char *key, uint32_t ifx)
    {
        return std::string("set ") + key + " port " + std::to_string(ifx);
    }
    static std::string del_line(const char *key) { return std::string("del ") + key; }

    BridgeSide side;
};

TEST_F(BridgeSideTest, NewAndMovedAddressesOfRegisteredVlansAreNotified)
{
    start(side);
    side.mac_seen(100, phone, 0x101);
    EXPECT_EQ(take_told(), Lines{});
    register_vlan(100);
    EXPECT_EQ(take_told(), Lines{set_line(phone_key, 1)}) << "known before the registration";
    side.mac_seen(100, pc, 0x102);
    side.mac_seen(101, pc, 0x102);
    EXPECT_EQ(take_told(), Lines{set_line(pc_key, 2)});

    side.mac_seen(100, phone, 0x101);
    EXPECT_EQ(take_told(), Lines{}) << "a repetition";
    side.mac_seen(100, phone, 0x103);
    EXPECT_EQ(take_told(), Lines{set_line(phone_key, 3)}) << "a move";

    register_vlan(100, false);
    EXPECT_EQ(take_told(), (Lines{del_line(phone_key), del_line(pc_key)}));
    side.mac_seen(100, phone, 0x102);
    EXPECT_EQ(take_told(), Lines{});
    EXPECT_EQ(side.learned_count(), 3u) << "a withdrawal unlearns nothing";
}

TEST_F(BridgeSideTest, AddressAgesOutFromWhenItWasLastSeen)
{
    start(side);
    register_vlan(100);
    side.mac_seen(100, phone, 0x101);
    side.mac_seen(100, pc, 0x101);
    take_told();
    loop.advance(200 * second_us);
    side.mac_seen(100, phone, 0x101);
    loop.advance(100 * second_us - 1);
    EXPECT_EQ(take_told(), Lines{});
    loop.advance(1);
    EXPECT_EQ(take_told(), Lines{del_line(pc_key)});
    loop.advance(200 * second_us - 1);
    EXPECT_EQ(take_told(), Lines{});
    loop.advance(1);
    EXPECT_EQ(take_told(), Lines{del_line(phone_key)});

    side.mac_seen(100, pc, 0x101);
    loop.advance(300 * second_us);
    EXPECT_EQ(take_told(), (Lines{set_line(pc_key, 1), del_line(pc_key)})) << "the timer is armed again";
}

TEST_F(BridgeSideTest, LinkLossDropsTheAddressesOfThatPortInThePlaneToo)
{
    plane.set_events(&side);
    start(side);
    register_vlan(1);
    receive(0x102, pc);
    for (int round = 0; round < 2; round++) { // sooner than the plane would report a known address again
        receive(0x101, phone);
        side.link_lost(0x101);
    }
    plane.set_events(nullptr);
    const char *key = "1/0/00:04:76:22:20:17";
    EXPECT_EQ(take_told(), (Lines{set_line("1/0/00:1b:21:00:00:01", 2), set_line(key, 1), del_line(key),
                                  set_line(key, 1), del_line(key)}));
    EXPECT_EQ(side.learned_count(), 1u);
}

TEST_F(BridgeSideTest, StartAndReconnectionBringTheStoreUpToDate)
{
    put(6, "u_bridge.mac_vid_reg_noti", phone_key); // of an earlier run
    put(6, "u_bridge.mac_vid_reg_noti", pc_key);
    register_vlan(100);
    register_vlan(101);
    side.mac_seen(100, phone, 0x101); // before the store answers
    start(side);
    EXPECT_TRUE(stored(phone_key));
    EXPECT_FALSE(stored(pc_key));

    side.mac_seen(101, phone, 0x101);
    loop.run_pending();
    mom::set_link(side.client(), 6, false);
    loop.run_pending();
    side.link_lost(0x101);
    side.mac_seen(100, pc, 0x102);
    side.mac_seen(102, pc, 0x102);
    register_vlan(101, false);
    register_vlan(102);
    EXPECT_TRUE(stored(phone_key)) << "the link is cut";
    EXPECT_GT(side.counters().write_failed, 0u);

    mom::set_link(side.client(), 6, true);
    loop.run_pending();
    EXPECT_FALSE(stored(phone_key));
    EXPECT_FALSE(stored("101/0/00:04:76:22:20:17"));
    EXPECT_TRUE(stored(pc_key));
    EXPECT_TRUE(stored("102/0/00:1b:21:00:00:01"));
    side.mac_seen(101, pc, 0x102);
    loop.run_pending();
    EXPECT_FALSE(stored("101/0/00:1b:21:00:00:01")) << "the withdrawal was missed";
}

TEST_F(BridgeSideTest, NothingIsLearnedFromWhatIsNoStation)
{
    start(side);
    register_vlan(100);
    side.mac_seen(100, Mac{0x01, 0x00, 0x5e, 0, 0, 1}, 0x101);
    side.mac_seen(100, Mac{}, 0x101);
    side.mac_seen(0, phone, 0x101);
    side.mac_seen(4095, phone, 0x101);
    side.mac_seen(100, phone, 0x999);
    EXPECT_EQ(side.learned_count(), 0u);
    EXPECT_EQ(side.counters().refused, 5u);
    register_vlan(4095);
    EXPECT_EQ(side.counters().refused, 6u);
}

TEST_F(BridgeSideTest, FullTableRefusesNewAddressesAndKeepsTheKnown)
{
    start(side);
    register_vlan(100);
    for (size_t i = 0; i < learned_count_max; i++) {
        side.mac_seen(200, Mac{0x02, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)}, 0x101);
    }
    side.mac_seen(100, phone, 0x102);
    EXPECT_EQ(take_told(), Lines{});
    EXPECT_EQ(side.counters().full, 1u);
    EXPECT_EQ(side.learned_count(), learned_count_max);
    loop.advance(300 * second_us);
    side.mac_seen(100, phone, 0x102);
    EXPECT_EQ(take_told(), Lines{set_line(phone_key, 2)});
}

} // namespace
} // namespace vvl::sides
