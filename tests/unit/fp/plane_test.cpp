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

struct Passage {
    uint32_t phyid;
    Bytes in;
    Bytes out; // empty: dropped
};

Passage unchanged(uint32_t phyid, const Bytes &frame)
{
    return {phyid, frame, frame};
}

// Each state replaces the one of the row before.
TEST_P(PlaneTest, FramesLeaveAsRulesAndBindingsSay)
{
    constexpr uint8_t mac_vlan = acl_bit(Acl::mac_vlan), voice = acl_bit(Acl::voice), security = acl_bit(Acl::security);
    const Rule tag = voice_tag_rule(5), mark = voice_mark_rule(5), deny = deny_rule();
    Rule any_form = tag, mark_pvid = mark;
    any_form.form_mask = 0; // a tag has the last word even then
    mark_pvid.vid = 1;
    const auto packet = [](std::initializer_list<unsigned> tags, unsigned type, const Bytes &payload) {
        return ethernet(server, phone, tags, type, payload);
    };
    // A checksum of 0xffff is wrong, and stays so where no DSCP changes.
    const auto odd = [&](unsigned control, uint8_t first, uint8_t checksum) {
        Bytes frame = tagged(phone, control, 46 << 2);
        frame[18] = first;
        frame[28] = frame[29] = checksum;
        return frame;
    };
    const Bytes marked = tagged(phone, 0xd064, 46 << 2 | 1), arp = packet({}, 0x0806, Bytes(28, 1));
    const struct {
        const char *what;
        PlaneState state;
        std::vector<Passage> passages;
    } rows[] = {
        {"rules without a binding",
         {{{tag}, {mark}, {}}, {}},
         {unchanged(1, untagged(phone)), unchanged(1, tagged(phone, 100))}},
        {"tags of the MAC-VLAN ACL",
         {{{tag}, {}, {}}, {{1, mac_vlan}}},
         {{1, untagged(phone), tagged(phone, 100)},
          {1, tagged(phone, 0xb000), tagged(phone, 0xb064)}, // priority tag, with DEI
          {1, packet({}, 3, {1, 2, 3}), packet({0x8100, 100}, 3, {1, 2, 3})},
          {1, packet({0x8100, 0, 0x8100, 0}, 0x0806, {1}), packet({0x8100, 100, 0x8100, 0}, 0x0806, {1})},
          unchanged(2, untagged(phone))}},
        {"a rule for any form",
         {{{any_form}, {}, {}}, {{1, mac_vlan}}},
         {unchanged(1, tagged(phone, 8)), unchanged(1, untagged(stranger))}},
        {"no rule left", {{{}, {}, {}}, {{1, mac_vlan}}}, {unchanged(1, untagged(phone))}},
        {"marks of the voice ACL, which change their own bits alone",
         {{{}, {mark}, {}}, {{1, voice}}},
         {{1, tagged(phone, 0x1064), marked},
          unchanged(1, marked), // counts, though nothing is left to change
          {1, packet({0x88a8, 0xf064, 0x8100, 0x2009}, 5, {}), packet({0x88a8, 0xd064, 0x8100, 0x2009}, 5, {})},
          {1, packet({0x8100, 100}, 0x86dd, ipv6(0xfe)), packet({0x8100, 0xc064}, 0x86dd, ipv6(46 << 2 | 2))},
          {1, odd(100, 0x45, 0xff), odd(0xc064, 0x45, 0xff)},
          {1, odd(100, 0x44, 7), odd(0xc064, 0x44, 7)}, // lies about its length
          unchanged(1, tagged(phone, 101)),
          unchanged(1, tagged(stranger, 100)),
          unchanged(1, untagged(phone)), // in VLAN 1
          unchanged(2, tagged(phone, 100))}},
        {"no place for a CoS without a tag, none for a DSCP without IP",
         {{{}, {}, {mark_pvid}}, {{1, security}}},
         {unchanged(1, arp),
          {1, untagged(phone), packet({}, 0x0800, ipv4(46 << 2 | 1))},
          {1, packet({}, 0x86dd, ipv6(0)), packet({}, 0x86dd, ipv6(46 << 2))}}},
        {"the security ACL judges what the voice ACL leaves",
         {{{}, {mark}, {deny}}, {{1, voice | security}, {2, security}}},
         {{1, tagged(stranger, 100), {}},
          {2, tagged(phone, 100), {}}, // no voice ACL there
          {1, tagged(phone, 0x1064), marked},
          unchanged(1, tagged(stranger, 101))}},
        {"tagged, then marked",
         {{{tag}, {mark}, {deny}}, {{1, all_acls}}},
         {{1, untagged(phone), tagged(phone, 0xc064, 46 << 2 | 1)}, unchanged(1, untagged(stranger))}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        state_ = row.state;
        install();
        for (const auto &[phyid, in, out] : row.passages) {
            EXPECT_EQ(out, through(phyid, in));
        }
    }
    const PortCounters counted = rig_->plane().counters(1);
    EXPECT_EQ(std::tuple(26u, 5u, 10u, 1u), std::tuple(counted.in, counted.tagged, counted.remarked, counted.dropped));
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

TEST_P(PlaneTest, RefusedRulesChangeNothing)
{
    state_.rules[1] = {voice_mark_rule(5)};
    state_.binding[1] = acl_bit(Acl::voice);
    install();
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
    state_.rules[1].clear();
    install();
    through(2, untagged(phone));
    EXPECT_EQ(3u, trapped_.size());
}

INSTANTIATE_TEST_SUITE_P(Planes, PlaneTest, ::testing::ValuesIn(planes_under_test),
                         [](const auto &row) { return row.param.name; });

} // namespace
} // namespace vvl::fp::test
