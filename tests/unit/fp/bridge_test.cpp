// The bridge behind the ACLs: where frames go, and what is learned from them.
#include "platform/base/log.h"
#include "platform/fp/soft/mac_table.h"
#include "tests/unit/fp/plane_fixture.h"

namespace vvl::fp::test
{
namespace
{

Bytes frame_to(const Mac &to, const Mac &from, std::initializer_list<unsigned> tags = {})
{
    return ethernet(to, from, tags, 0x0800, ipv4(0));
}

// The bridge of the software plane; behind the one in the kernel is another.
TEST(SoftBridge, FramesLeaveByThePortsThatTheirDestinationAndVlanSay)
{
    SoftRig rig;
    using Ports = std::vector<uint32_t>;
    const auto expect_at = [&](const Ports &ports, uint32_t from, const Bytes &frame) {
        Sent expected;
        for (const uint32_t port : ports) {
            expected.emplace_back(port, frame);
        }
        EXPECT_EQ(expected, rig.send(from, frame));
    };
    for (const Mac &to : {server, broadcast, Mac{1, 0, 0x5e, 0, 0, 1}}) { // unknown or a group
        expect_at({uplink}, 1, frame_to(to, phone));
        expect_at({1, 2, 3}, uplink, frame_to(to, stranger));
    }
    expect_at({uplink}, 2, frame_to(broadcast, server));
    expect_at({2}, 1, frame_to(server, phone));
    expect_at({2}, uplink, frame_to(server, stranger));
    expect_at({}, 2, frame_to(server, stranger)); // behind the same port
    expect_at({2}, 3, frame_to(server, phone, {0x8100, 1}));
    expect_at({uplink}, 3, frame_to(server, phone)); // VLAN 7
    expect_at({uplink}, 1, frame_to(server, phone, {0x8100, 7}));

    rig.plane().forget(1, server);
    expect_at({uplink}, 1, frame_to(server, phone));
    expect_at({uplink}, 2, frame_to(broadcast, server));
    rig.plane().set_link(2, false);
    expect_at({uplink}, 1, frame_to(server, phone));
    expect_at({1, 3}, uplink, frame_to(broadcast, stranger));
    expect_at({}, 2, frame_to(broadcast, phone));
    EXPECT_EQ(1u, rig.plane().counters(2).dropped);
    expect_at({}, 77, frame_to(broadcast, phone));
}

TEST_P(PlaneTest, AddressIsReportedWhenNewMovedForgottenOrDue)
{
    const Bytes frame = frame_to(broadcast, phone);
    const auto reports = [&](uint32_t phyid, const Bytes &bytes) {
        seen_.clear();
        rig_->send(phyid, bytes);
        return seen_;
    };
    using Reports = std::vector<Seen>;
    EXPECT_EQ(Reports({{1, phone, 1}}), reports(1, frame));
    rig_->advance(mac_seen_interval_us - 1);
    EXPECT_EQ(Reports(), reports(1, frame));
    rig_->advance(1);
    EXPECT_EQ(Reports({{1, phone, 1}}), reports(1, frame));
    EXPECT_EQ(Reports({{1, phone, 2}}), reports(2, frame));
    EXPECT_EQ(Reports({{7, phone, 3}}), reports(3, frame)); // another VLAN, another address
    rig_->plane().forget(1, phone);
    EXPECT_EQ(Reports({{1, phone, 2}}), reports(2, frame));
    rig_->plane().set_link(2, false);
    rig_->plane().set_link(2, true);
    EXPECT_EQ(Reports({{1, phone, 2}}), reports(2, frame));
}

TEST_P(PlaneTest, AddressIsLearnedInTheResultingVlanAndNotFromDeniedFrames)
{
    state_.rules[0] = {voice_tag_rule(5)};
    state_.rules[2] = {deny_rule()};
    state_.binding = {{1, acl_bit(Acl::mac_vlan)}, {2, acl_bit(Acl::security)}};
    install();
    rig_->send(1, frame_to(broadcast, phone));
    rig_->send(2, frame_to(broadcast, stranger, {0x8100, voice_vlan}));
    rig_->send(1, frame_to(broadcast, Mac{3, 0, 0, 0, 0, 1})); // a group address
    rig_->send(1, frame_to(broadcast, Mac{}));
    EXPECT_EQ(std::vector<Seen>({{voice_vlan, phone, 1}}), seen_);
}

// Made-up addresses behind port 1, of which the half is of a voice vendor.
TEST_P(PlaneTest, FloodTakesRoomFromNobodyElse)
{
    std::vector<std::string> lines;
    const LogSink before = set_log_sink([&](LogLevel, const std::string &text) { lines.push_back(text); });
    state_.rules[1] = {voice_mark_rule(5)};
    install();
    const auto learned = [&](uint32_t phyid, const Mac &mac) {
        seen_.clear();
        rig_->send(phyid, frame_to(server, mac));
        return !seen_.empty();
    };
    const auto flood = [&](Mac mac, size_t count) {
        size_t taken = 0;
        for (size_t i = 0; i < count; i++) {
            mac[4] = static_cast<uint8_t>(i >> 8);
            mac[5] = static_cast<uint8_t>(i);
            taken += learned(1, mac);
        }
        return taken;
    };
    const PortAddresses max = port_addresses_max(false);
    EXPECT_EQ(max.others, flood(stranger, max.others + 100));
    EXPECT_FALSE(learned(1, server));
    EXPECT_TRUE(learned(2, server));
    EXPECT_TRUE(learned(1, phone));
    EXPECT_EQ(max.voice - 1, flood(Mac{phone[0], phone[1], phone[2], 0x99, 0, 0}, max.voice + 100));
    EXPECT_TRUE(learned(2, phone)); // known, and moves
    EXPECT_TRUE(learned(2, Mac{phone[0], phone[1], phone[2], 0x88, 0, 0}));
    rig_->advance(1'000'000);
    rig_->plane().set_link(1, false);
    rig_->plane().set_link(1, true);
    EXPECT_TRUE(learned(1, stranger));
    rig_->advance(1'000'000);
    set_log_sink(before);
    ASSERT_EQ(4u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("port 1, addresses of other devices: ")) << lines[0];
    EXPECT_NE(std::string::npos, lines[3].find("enough room again")) << lines[3];
}

// An output that brings the frame back in, as a cable between two ports would.
TEST(SoftBridge, FrameThatComesBackDuringItsOwnOutputIsForwardedWhole)
{
    SoftRig rig;
    const Bytes frame = frame_to(broadcast, phone), other = frame_to(server, stranger, {0x8100, 5});
    rig.on_output = [&](uint32_t phyid) {
        if (phyid == 1) {
            rig.soft().receive(2, other);
        }
    };
    EXPECT_EQ(Sent({{1, frame}, {uplink, other}, {2, frame}, {3, frame}}), rig.send(uplink, frame));
}

TEST(MacTable, FullTableKeepsWhatItKnowsAndCountsTheRest)
{
    MacTable table;
    const size_t per_port = port_addresses_max(false).others;
    const auto from = [](uint64_t port, bool voice = false) {
        return MacTable::Sender{static_cast<uint32_t>(port), false, voice};
    };
    for (uint64_t mac = 0; mac < other_addresses_max; mac++) {
        ASSERT_TRUE(table.learn(1, mac + 1, from(mac / per_port), 0));
    }
    uint32_t phyid = 0;
    EXPECT_FALSE(table.learn(2, 1, from(99), 0));
    EXPECT_FALSE(table.find(2, 1, phyid));
    EXPECT_EQ(1u, table.refused());
    EXPECT_TRUE(table.learn(1, 1, from(99), 0)); // a known one may still move
    table.forget_port(0);
    EXPECT_TRUE(table.find(1, 1, phyid));
    EXPECT_EQ(99u, phyid);
    EXPECT_TRUE(table.learn(2, 1, from(99), 0));
    for (uint64_t mac = 0; mac < addresses_max - other_addresses_max; mac++) {
        ASSERT_TRUE(table.learn(3, mac + 1, from(200 + mac / port_addresses_max(false).voice, true), 0));
    }
}

} // namespace
} // namespace vvl::fp::test
