#include "platform/sides/packet_side.h"
#include "tests/unit/sides/rig.h"

#include <functional>

namespace vvl::sides
{
namespace
{

class PacketSideTest : public Rig
{
  protected:
    PacketSideTest() : side(*store, loop, plane)
    {
        plane.set_events(&side);
        switch_vlan(100, 1);
        for (const host::PortId &port : port_map) {
            configure_port(port.ifx, 1, 1);
        }
    }
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

// The agent leaves trap objects of waiting ports behind in each of these.
TEST_F(PacketSideTest, TrapCountsOnlyForAnEnabledAutomaticPortWhileTheVoiceVlanIsOn)
{
    const struct {
        const char *name;
        std::function<void()> end;
        std::function<void()> begin;
        bool counts = false; // in between
    } rows[] = {
        {"trap removed", [&] { set_trap(1, false); }, [&] { set_trap(1); }},
        {"port disabled", [&] { configure_port(1, 0, 1); }, [&] { configure_port(1, 1, 1); }},
        {"port made manual", [&] { configure_port(1, 1, 0); }, [&] { configure_port(1, 1, 3); }},
        {"port deleted", [&] { put(4, "p_bridge.vvlan_port_cfg", "1", false); }, [&] { configure_port(1, 1, 1); }},
        {"voice VLAN off", [&] { switch_vlan(100, 0); }, [&] { switch_vlan(200, 1); }},
        {"VLAN 0 on", [&] { switch_vlan(0, 1); }, [&] { switch_vlan(100, 1); }},
        {"missed while the link was cut",
         [&] {
             mom::set_link(side.client(), 4, false);
             switch_vlan(100, 0);
             mom::set_link(side.client(), 4, true);
             loop.run_pending();
         },
         [&] { switch_vlan(100, 1); }},
        // The agent goes on with VLAN 100.
        {"another VLAN off", [&] { switch_vlan(300, 0); }, [] {}, true},
    };
    plane.set_trap(0x101, true); // left by an earlier run
    start(side);
    for (int frame = 0; frame < 2; frame++) {
        receive(0x101, phone);
        EXPECT_EQ(plane.counters(0x101).trapped, 1u) << "the first frame removes it";
    }
    set_trap(1);
    for (const auto &row : rows) {
        row.end();
        loop.advance(renotify_interval_us);
        const uint64_t trapped = plane.counters(0x101).trapped;
        receive(0x101, phone);
        EXPECT_EQ(take_told().size(), row.counts) << row.name;
        EXPECT_EQ(plane.counters(0x101).trapped, trapped + row.counts) << row.name;
        row.begin();
        loop.advance(renotify_interval_us);
        receive(0x101, phone);
        EXPECT_EQ(take_told(), Lines{"publish 257"}) << "after " << row.name;
    }
}

} // namespace
} // namespace vvl::sides
