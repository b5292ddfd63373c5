// What every plane makes of rules and bindings: each rule matches, its
// neighbours do not, and after its removal it no longer matches.
#include "fp_udp.h"
#include "platform/fp/error.h"
#include "tests/unit/fp/plane_fixture.h"

namespace vvl::fp::test
{
namespace
{

constexpr uint8_t all_acls = acl_bit(Acl::mac_vlan) | acl_bit(Acl::voice) | acl_bit(Acl::security);

Bytes untagged(const Mac &from)
{
    return ethernet(server, from, {}, 0x0800, ipv4(1));
}

Bytes tagged(const Mac &from, unsigned control, unsigned tos = 1)
{
    return ethernet(server, from, {0x8100, control}, 0x0800, ipv4(tos));
}

TEST_P(PlaneTest, MacVlanRuleTagsUntaggedFramesOfItsDevices)
{
    install(Acl::mac_vlan, {voice_tag_rule(5)}, 0);
    EXPECT_EQ(untagged(phone), through(1, untagged(phone)));
    install(Acl::mac_vlan, {voice_tag_rule(5)}, acl_bit(Acl::mac_vlan));
    EXPECT_EQ(tagged(phone, 100), through(1, untagged(phone)));
    EXPECT_EQ(tagged(phone, 0xb064), through(1, tagged(phone, 0xb000))); // priority tag, with DEI
    EXPECT_EQ(2u, rig_->plane().counters(1).tagged);

    Rule any_form = voice_tag_rule(5);
    any_form.form_mask = 0; // a tag has the last word even then
    install(Acl::mac_vlan, {any_form}, acl_bit(Acl::mac_vlan));
    EXPECT_EQ(tagged(phone, 8), through(1, tagged(phone, 8)));
    EXPECT_EQ(untagged(stranger), through(1, untagged(stranger)));
    EXPECT_EQ(untagged(phone), through(2, untagged(phone)));

    install(Acl::mac_vlan, {}, acl_bit(Acl::mac_vlan));
    EXPECT_EQ(untagged(phone), through(1, untagged(phone)));
    EXPECT_EQ(2u, rig_->plane().counters(1).tagged);
    EXPECT_EQ(0u, rig_->plane().counters(1).remarked);
}

TEST_P(PlaneTest, VoiceRuleMarksItsDevicesInTheVoiceVlan)
{
    install(Acl::voice, {voice_mark_rule(5)}, acl_bit(Acl::voice));
    const Bytes marked = tagged(phone, 0xd064, 46 << 2 | 1);

    EXPECT_EQ(marked, through(1, tagged(phone, 0x1064)));
    EXPECT_EQ(marked, through(1, marked)); // counts, though nothing is left to change
    EXPECT_EQ(2u, rig_->plane().counters(1).remarked);

    EXPECT_EQ(tagged(phone, 101), through(1, tagged(phone, 101)));
    EXPECT_EQ(tagged(stranger, 100), through(1, tagged(stranger, 100)));
    EXPECT_EQ(tagged(phone, 100), through(2, tagged(phone, 100)));
    EXPECT_EQ(untagged(phone), through(1, untagged(phone))); // in VLAN 1
    EXPECT_EQ(2u, rig_->plane().counters(1).remarked);

    install(Acl::voice, {voice_mark_rule(5)}, 0);
    EXPECT_EQ(tagged(phone, 100), through(1, tagged(phone, 100)));
}

const Mac reserved[] = {{0x01, 0x80, 0xc2, 0, 0, 0},
                        {0x01, 0x80, 0xc2, 0, 0, 0x0e},
                        {0x01, 0x80, 0xc2, 0, 0, 0x0f},
                        {0x01, 0, 0x0c, 0xcc, 0xcc, 0xcc},
                        {0x01, 0, 0x0c, 0xcc, 0xcc, 0xcd}};
const Mac beside_reserved[] = {{0x01, 0x80, 0xc2, 0, 0, 0x10},
                               {0x01, 0x80, 0xc3, 0, 0, 0},
                               {0x01, 0, 0x0c, 0xcc, 0xcc, 0xce},
                               {0x01, 0, 0x0c, 0xcc, 0xcc, 0xcb},
                               {0x00, 0x80, 0xc2, 0, 0, 0}};

// LLDP and its like pass as if the plane were not there, and may make a port join.
TEST_P(PlaneTest, FramesToReservedDestinationsAreTrappedAndNothingElse)
{
    PlaneState state;
    state.rules[0] = {voice_tag_rule(5)};
    state.rules[1] = {voice_mark_rule(5)};
    state.rules[2] = {deny_rule()};
    state.binding = {{1, all_acls}, {2, acl_bit(Acl::security)}};
    ASSERT_EQ(0, rig_->plane().install(state));
    ASSERT_EQ(0, rig_->plane().set_trap(1, true));
    const auto frames_to = [](const Mac &to) {
        return std::vector<Bytes>{ethernet(to, phone, {}, 0x0800, ipv4(0)),
                                  ethernet(to, phone, {0x8100, voice_vlan}, 0x0800, ipv4(0)),
                                  ethernet(to, stranger, {0x8100, voice_vlan}, 0x0800, ipv4(0))};
    };
    for (const Mac &to : reserved) {
        for (const Bytes &frame : frames_to(to)) {
            EXPECT_EQ(frame, through(1, frame));
            EXPECT_EQ(frame, through(2, frame));
        }
    }
    EXPECT_EQ(2 * std::size(reserved), trapped_.size());
    EXPECT_TRUE(seen_.empty());
    for (const Mac &to : beside_reserved) {
        for (const Bytes &frame : frames_to(to)) {
            EXPECT_NE(frame, through(1, frame));
        }
    }
}

// Port 1 has joined, 2 waits, 3 is no voice port; what is inside an outer tag of
// VLAN 0 counts.
TEST_P(PlaneTest, VoiceVlansTagComesInWhereThePortIsInTheVlan)
{
    PlaneState state;
    state.rules[0] = {voice_tag_rule(5)};
    state.rules[1] = {voice_mark_rule(5)};
    state.rules[2] = {deny_rule()};
    state.rules[2][0].drop = false;
    state.binding = {{1, all_acls}, {2, acl_bit(Acl::security)}};
    ASSERT_EQ(0, rig_->plane().install(state));
    ASSERT_EQ(0, rig_->plane().set_trap(2, true));
    const struct {
        std::initializer_list<unsigned> tags;
        bool on_port[3];
    } rows[] = {
        {{}, {true, true, true}},
        {{0x8100, 0}, {true, true, true}},
        {{0x8100, voice_vlan}, {true, false, false}},
        {{0x88a8, voice_vlan, 0x8100, 7}, {true, false, false}},
        {{0x8100, 0xe000, 0x8100, voice_vlan}, {true, false, false}},
        {{0x8100, 0, 0x8100, 0}, {true, true, true}},
        {{0x8100, 8, 0x8100, voice_vlan}, {true, true, true}},
        {{0x8100, 101}, {true, true, true}},
        {{0x8100, 0, 0x8100, 101}, {true, true, true}},
    };
    for (const auto &row : rows) {
        for (uint32_t phyid : {1u, 2u, 3u}) {
            SCOPED_TRACE("row " + std::to_string(&row - rows) + " port " + std::to_string(phyid));
            trapped_.clear();
            EXPECT_EQ(row.on_port[phyid - 1], !through(phyid, ethernet(server, phone, row.tags, 0x0806, {})).empty());
            EXPECT_EQ(phyid == 2, !trapped_.empty());
            EXPECT_EQ(row.on_port[phyid - 1], !through(phyid, ethernet(server, stranger, row.tags, 5, {})).empty());
        }
        EXPECT_FALSE(rig_->send(uplink, ethernet(broadcast, server, row.tags, 0x0806, {})).empty());
    }
    // Security mode judges by the inner tag, and what tags the phone's frame has decides the VLAN.
    state.rules[2] = {deny_rule()};
    ASSERT_EQ(0, rig_->plane().install(state));
    EXPECT_TRUE(through(1, ethernet(server, stranger, {0x8100, 0, 0x8100, voice_vlan}, 5, {})).empty());
    EXPECT_EQ(ethernet(server, phone, {0x8100, 0xc000, 0x8100, voice_vlan}, 5, {}),
              through(1, ethernet(server, phone, {0x8100, 0, 0x8100, voice_vlan}, 5, {})));
    std::string why;
    ASSERT_TRUE(rig_->plane().add_port(port_of(3, voice_vlan), why)) << why;
    EXPECT_FALSE(through(3, tagged(stranger, voice_vlan)).empty());
}

// A frame without a tag has no place for a CoS, and one without IP none for a DSCP.
TEST_P(PlaneTest, MarksOnlyWhatTheFrameHas)
{
    Rule rule = voice_mark_rule(1);
    rule.vid = 1;
    install(Acl::security, {rule}, acl_bit(Acl::security));
    const Bytes arp = ethernet(broadcast, phone, {}, 0x0806, Bytes(28, 1));
    EXPECT_EQ(arp, through(1, arp));
    EXPECT_EQ(0u, rig_->plane().counters(1).remarked);
    EXPECT_EQ(ethernet(server, phone, {}, 0x0800, ipv4(46 << 2 | 1)), through(1, untagged(phone)));
    EXPECT_EQ(ethernet(server, phone, {}, 0x86dd, ipv6(46 << 2)),
              through(1, ethernet(server, phone, {}, 0x86dd, ipv6(0))));
    EXPECT_EQ(2u, rig_->plane().counters(1).remarked);
}

TEST_P(PlaneTest, SecurityRuleJudgesOnlyWhatTheVoiceAclLeaves)
{
    install(Acl::voice, {voice_mark_rule(5)}, 0);
    state_.binding[2] = acl_bit(Acl::security);
    install(Acl::security, {deny_rule()}, acl_bit(Acl::voice) | acl_bit(Acl::security));

    EXPECT_TRUE(through(1, tagged(stranger, 100)).empty());
    EXPECT_TRUE(through(2, tagged(phone, 100)).empty()); // no voice ACL there
    EXPECT_EQ(1u, rig_->plane().counters(1).dropped);
    EXPECT_FALSE(through(1, tagged(phone, 100)).empty());
    EXPECT_FALSE(through(1, tagged(stranger, 101)).empty());

    install(Acl::security, {}, acl_bit(Acl::voice) | acl_bit(Acl::security));
    EXPECT_EQ(tagged(stranger, 100), through(1, tagged(stranger, 100)));
    EXPECT_EQ(1u, rig_->plane().counters(1).dropped);
}

TEST_P(PlaneTest, UntaggedVoiceFrameIsTaggedThenMarked)
{
    state_.rules[0] = {voice_tag_rule(5)};
    state_.rules[1] = {voice_mark_rule(5)};
    install(Acl::security, {deny_rule()}, all_acls);
    EXPECT_EQ(tagged(phone, 0xc064, 46 << 2 | 1), through(1, untagged(phone)));
    EXPECT_EQ(untagged(stranger), through(1, untagged(stranger)));
}

TEST_P(PlaneTest, RefusedRulesChangeNothing)
{
    install(Acl::voice, {voice_mark_rule(5)}, acl_bit(Acl::voice));
    Rule cos = voice_mark_rule(1), dscp = cos, vid = cos, tag = cos;
    cos.cos = 8;
    dscp.dscp = 64;
    vid.vid = 4095;
    tag.add_tag = true;
    std::vector<Rule> too_many(FP_UDP_ACE_COUNT_MAX + 1, voice_mark_rule(1));
    for (size_t i = 0; i < too_many.size(); i++) {
        too_many[i].id = i + 1;
    }
    const std::vector<Rule> bad_lists[] = {
        {cos}, {dscp}, {vid}, {tag}, {voice_mark_rule(0)}, {voice_mark_rule(2), voice_mark_rule(2)}, too_many};
    for (const std::vector<Rule> &bad : bad_lists) {
        PlaneState state;
        state.rules[2] = bad;
        EXPECT_EQ(error_invalid, rig_->plane().install(state));
        EXPECT_EQ(state_, rig_->plane().installed());
        EXPECT_EQ(tagged(phone, 0xc064, 46 << 2), through(1, tagged(phone, 100, 0)));
    }
}

// The device is noticed in any VLAN, before any ACL is bound, and where the
// security ACL denies it.
TEST_P(PlaneTest, TrapCopiesFramesOfVoiceDevicesAsTheyCameIn)
{
    state_.rules[1] = {voice_mark_rule(5)};
    state_.rules[2] = {deny_rule()};
    state_.binding = {{2, acl_bit(Acl::security)}};
    install();
    through(1, untagged(phone));
    EXPECT_TRUE(trapped_.empty());
    ASSERT_EQ(0, rig_->plane().set_trap(1, true));
    ASSERT_EQ(0, rig_->plane().set_trap(2, true));

    EXPECT_EQ(untagged(phone), through(1, untagged(phone)));
    EXPECT_EQ(tagged(phone, 55), through(1, tagged(phone, 55)));
    EXPECT_TRUE(through(2, tagged(phone, 100)).empty());
    through(1, untagged(stranger));
    through(3, untagged(phone));
    const std::vector<Trapped> expected = {
        {1, phone, untagged(phone)}, {1, phone, tagged(phone, 55)}, {2, phone, tagged(phone, 100)}};
    EXPECT_EQ(expected, trapped_);
    EXPECT_EQ(2u, rig_->plane().counters(1).trapped);

    ASSERT_EQ(0, rig_->plane().set_trap(1, false));
    through(1, untagged(phone));
    install(Acl::voice, {}, 0);
    through(2, untagged(phone));
    EXPECT_EQ(3u, trapped_.size());
}

INSTANTIATE_TEST_SUITE_P(Planes, PlaneTest, ::testing::ValuesIn(planes_under_test),
                         [](const auto &row) { return row.param.name; });

} // namespace
} // namespace vvl::fp::test
