// Requests one by one: what they install, what is refused and how it is told.
#include "tests/unit/fp/manager_fixture.h"

#include <functional>

namespace vvl::fp::test
{
namespace
{

using Lines = std::vector<std::string>;

TEST_F(ManagerTest, VoiceAcesAndBindingsReachThePlane)
{
    ASSERT_EQ(0, set_acl(voice_app));
    ASSERT_EQ(0, set_ace(voice_app, 7));
    ASSERT_EQ(0, set_acl(mac_vlan_app));
    ASSERT_EQ(0, set_ace(mac_vlan_app, 3, {{"vlan_form", 1, {0, 3}}, {"add_tag", 2, {0x64, 0, 0, 0}}}));
    ASSERT_EQ(0, set_acl(security_app));
    ASSERT_EQ(0, set_ace(security_app, 1, {{"vid", 1, {0x64, 0, 0xff, 0xff}}, {"fwd", 2, {0}}}));
    ASSERT_EQ(0, bind(voice_app, 12));
    ASSERT_EQ(0, bind(mac_vlan_app, 12));

    Rule voice{.id = 7, .mac = {2, 0x11, 0x22}, .mask = {0xff, 0xff, 0xff}, .vid = 100, .vid_mask = 0xffff};
    voice.set_cos = voice.set_dscp = voice.set_prio = true;
    voice.cos = voice.prio = 6;
    voice.dscp = 46;
    PlaneState expected;
    expected.rules[0] = {{.id = 3, .form_mask = 3, .add_tag = true, .tag_vid = 100}};
    expected.rules[1] = {voice};
    expected.rules[2] = {{.id = 1, .vid = 100, .vid_mask = 0xffff, .drop = true}};
    expected.binding = {{12, acl_bit(Acl::voice) | acl_bit(Acl::mac_vlan)}};
    EXPECT_EQ(expected, plane_.state);
    EXPECT_EQ(expected, manager_->desired());

    ASSERT_EQ(0, set_ace(voice_app, 7, {{"cos", 2, {1, 0, 0, 0, 0, 0}}})); // replaces, as a whole
    EXPECT_EQ(Mac{}, plane_.state.rules[1][0].mask);
    EXPECT_FALSE(plane_.state.rules[1][0].set_dscp);
    ASSERT_EQ(0, set_acl(voice_app)); // keeps
    EXPECT_EQ(1u, plane_.state.rules[1].size());
}

TEST_F(ManagerTest, OutcomesComeFromTheLoopWithACopyOfTheDescriptor)
{
    vvlan_acl_desc_t d = desc(voice_app, 200);
    ASSERT_EQ(0, ops().acl_set(nullptr, &d));
    d = {};
    set_acl(mac_vlan_app);
    set_ace(mac_vlan_app, 9, {});
    bind(mac_vlan_app, 4);
    set_ace(security_app, 1, {});
    bind(security_app, 1);
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(
        Lines({"acl vvlan_secu_pas_app 200", "acl mac_vlan_app 101", "ace mac_vlan_app 101 9", "apply mac_vlan_app 101",
               "no ace vvlan_secu_deny_app 101 1 failed", "no apply vvlan_secu_deny_app 101 failed"}),
        delivered());

    set_acl(security_app);
    manager_->forget_module();
    EXPECT_EQ(Lines(), delivered());
    attach();
    set_acl(security_app);
    manager_.reset(); // what is on its way must not reach into a manager that is gone
    EXPECT_EQ(Lines(), delivered());
    EXPECT_EQ(nullptr, fp_udp_get_mgr());
}

TEST_F(ManagerTest, DeletionsTakeWhatBelongsToThemAndAreNotReported)
{
    for (const char *app_type : {voice_app, security_app}) {
        set_acl(app_type);
        set_ace(app_type, 1);
        set_ace(app_type, 2);
        bind(app_type, 8);
        bind(app_type, 9);
    }
    delivered();
    const vvlan_acl_desc_t voice = desc(voice_app), security = desc(security_app), other = desc(voice_app, 102);
    const vvlan_apply_t port = record(security_app, 8), other_port = record(security_app, 10);
    PlaneState expected = plane_.state;
    EXPECT_EQ(0, ops().acl_del(nullptr, &other));
    EXPECT_EQ(0, ops().ace_del(nullptr, &voice, 3));
    EXPECT_EQ(0, ops().apply_del(nullptr, &security, &other_port));
    EXPECT_EQ(expected, plane_.state);

    EXPECT_EQ(0, ops().acl_del(nullptr, &voice));
    EXPECT_EQ(0, ops().ace_del(nullptr, &security, 1));
    EXPECT_EQ(0, ops().apply_del(nullptr, &security, &port));
    EXPECT_EQ(0, ops().acl_del(nullptr, &voice));
    expected.rules[1].clear();
    expected.rules[2].erase(expected.rules[2].begin());
    expected.binding = {{9, acl_bit(Acl::security)}};
    EXPECT_EQ(expected, plane_.state);
    EXPECT_EQ(Lines(), delivered());
    EXPECT_EQ(0u, manager_->counters().refused);
}

TEST_F(ManagerTest, FieldsThatCannotBeCarriedOutAreRefusedByName)
{
    using Value = std::vector<uint8_t>;
    const Field voice_rows[] = {{"src_mac2", 1, Value(6)},
                                {"a name that is longer than any field's is cut", 1, Value(6)},
                                {"", 1, Value(6)},
                                {"cos", 1, Value(6)},
                                {"cos", 0, Value(6)},
                                {"src_mac", 2, Value(12)},
                                {"src_mac", 1, Value(11)},
                                {"vid", 1, Value(2)},
                                {"fwd", 2, {}},
                                {"cos", 2, Value(300)},
                                {"cos", 2, {8, 0, 0, 0, 0, 0}},
                                {"cos", 2, {0, 0, 0, 0, 0, 1}},
                                {"ipv4_dscp", 2, {64, 0, 0, 0, 0, 0}},
                                {"prio_in", 2, {8, 0, 0, 0, 0, 0}},
                                {"vid", 1, {0xff, 0x0f, 0xff, 0xff}},
                                {"vlan_form", 1, {3, 3}},
                                {"vlan_form", 1, {0, 4}},
                                {"fwd", 2, {2}},
                                {"add_tag", 2, {0x64, 0, 0, 0}}};
    set_acl(voice_app);
    ASSERT_EQ(0, set_ace(voice_app, 7));
    set_acl(mac_vlan_app);
    delivered();
    const PlaneState before = plane_.state;
    for (const Field &field : voice_rows) {
        log_.clear();
        const std::string name = std::string(field.name).substr(0, 31);
        EXPECT_GT(0, set_ace(voice_app, 7, {field}));
        ASSERT_EQ(1u, log_.size()) << name;
        EXPECT_TRUE(log_[0].starts_with("ACL vvlan_secu_pas_app 101: ACE 7: field " +
                                        (name.empty() ? "(no name)" : name) + ": "))
            << log_[0];
        EXPECT_EQ(Lines({"no ace vvlan_secu_pas_app 101 7 failed"}), delivered());
    }
    EXPECT_GT(0, set_ace(voice_app, 7, {voice_fields[1], voice_fields[1]}));
    EXPECT_GT(0, set_ace(voice_app, 7, std::vector<Field>(17, voice_fields[0])));
    for (uint64_t id : {uint64_t{0}, uint64_t{FP_UDP_ACE_COUNT_MAX + 1}, uint64_t{1} << 32 | 5}) {
        EXPECT_GT(0, set_ace(voice_app, id));
    }
    for (const Value &value : {Value{0, 0, 0, 0}, {0xff, 0x0f, 0, 0}, {1, 0, 1, 0}}) {
        EXPECT_GT(0, set_ace(mac_vlan_app, 1, {{"add_tag", 2, value}}));
    }
    EXPECT_GT(0, set_ace(mac_vlan_app, 1, {{"fwd", 2, {0}}}));
    EXPECT_EQ(before, plane_.state);
}

TEST_F(ManagerTest, MalformedRequestsAreRefused)
{
    vvlan_acl_desc_t endless = desc(voice_app), kind = endless;
    std::memset(endless.app_type, 'x', sizeof endless.app_type);
    kind.acl_kind = 5;
    const vvlan_acl_desc_t *const bad_descriptors[] = {nullptr, &endless, &kind};
    for (const vvlan_acl_desc_t *bad : bad_descriptors) {
        EXPECT_GT(0, ops().acl_set(nullptr, bad));
    }
    EXPECT_GT(0, set_acl("other_app"));
    EXPECT_EQ(Lines({"no acl vvlan_secu_pas_app 101 failed", "no acl other_app 101 failed"}), delivered());
    EXPECT_GT(0, ops().acl_expire(nullptr, "other_app"));

    set_acl(voice_app);
    vvlan_apply_t early = record(voice_app, 1);
    early.apply_opt = 1;
    EXPECT_GT(0, bind(voice_app, early));
    EXPECT_GT(0, bind(voice_app, record(security_app, 1)));
    EXPECT_GT(0, bind(voice_app, record(voice_app, 1), 5));
    EXPECT_GT(0, set_acl(voice_app, 102)); // the app type has its ACL
    EXPECT_EQ(PlaneState{}, plane_.state);
}

TEST_F(ManagerTest, PlaneThatRefusesLeavesTheDesiredStateAsItWas)
{
    set_acl(voice_app);
    set_ace(voice_app, 1);
    bind(voice_app, 1);
    delivered();
    const PlaneState before = plane_.state;
    const vvlan_acl_desc_t voice = desc(voice_app);
    const std::function<int()> requests[] = {
        [] { return set_ace(voice_app, 2); },
        [] { return bind(voice_app, 3); },
        [&] { return ops().ace_del(nullptr, &voice, 1); },
        [&] { return ops().acl_del(nullptr, &voice); },
    };
    for (const auto &request : requests) {
        plane_.next_result = -5;
        EXPECT_EQ(-5, request());
        EXPECT_EQ(before, plane_.state);
        EXPECT_EQ(before, manager_->desired());
    }
    EXPECT_EQ(Lines({"no ace vvlan_secu_pas_app 101 2 failed", "no apply vvlan_secu_pas_app 101 failed"}), delivered());
    EXPECT_EQ(0, set_ace(voice_app, 2));
    EXPECT_EQ(2u, plane_.state.rules[1].size());
}

} // namespace
} // namespace vvl::fp::test
