// The global configuration's fields: what switching the voice VLAN on and off
// does, in order, and what its other settings rebuild. ACLs, ACEs and bindings
// are compared byte for byte.
#include "tests/unit/module/module_test.h"

namespace vvl::test
{
namespace
{

const std::string remark = " do:cos=060000000000 do:ipv4_dscp=2e0000000000 do:prio_in=060000000000";
const std::string phone = " if:src_mac=021122000000ffffff000000";
const char subscribe_100[] = "subscribe 6 u_bridge.mac_vid_reg_noti{index{t_fid:100}} flags=2";
const char unsubscribe_100[] = "unsubscribe 6 u_bridge.mac_vid_reg_noti{index{t_fid:100}} flags=2";

using GlobalConfiguration = ModuleTest;

TEST_F(GlobalConfiguration, SwitchingOnAndOffRunsInOrder)
{
    start();
    set_oui(oui_phone, mask24); // makes the first two ACLs
    calls();
    EXPECT_EQ(set_port(5, 1, 0), 0);
    EXPECT_CALLS("ddm.phyid_of 5") << "nothing is applied while the voice VLAN is off";
    EXPECT_EQ(voice_vlan(100), 0);
    EXPECT_CALLS("acl_set 100 vvlan_secu_deny_app / ace_set 100 1 if:vid=6400ffff" + remark + " / ace_set 101 1" +
                 phone + " if:vid=6400ffff" + remark + " / ace_set 102 1" + phone +
                 " if:vlan_form=0003 do:add_tag=64000000 / del 8 u_bridge.vvlan_port_cfg{index{ifx:5}} / "
                 "bind 101 261 / bind 102 261 opt / bind 100 261 / " +
                 subscribe_100);
    EXPECT_EQ(voice_vlan(100, 0), 0);
    EXPECT_CALLS(std::string("unbind 101 261 / unbind 102 261 opt / unbind 100 261 / ace_del 100 1 / ace_del 101 1 / "
                             "ace_del 102 1 / acl_del 101 vvlan_secu_pas_app / acl_del 102 mac_vlan_app / "
                             "acl_del 100 vvlan_secu_deny_app / ") +
                 unsubscribe_100);
    EXPECT_EQ(cfg().vid + cfg().enable, 0u);
    EXPECT_EQ(voice_vlan(0, 0), 0);
    EXPECT_EQ(calls({"a", "b"}), by_line("ace_del 100 1 / ace_del 101 1 / ace_del 102 1")) << "runs again";
}

TEST_F(GlobalConfiguration, VlanZeroAndAnotherVlan)
{
    prepare();
    EXPECT_EQ(voice_vlan(200, 0), 0);
    EXPECT_CALLS(unsubscribe_100) << "disabling another VLAN only ends the notifications";
    EXPECT_EQ(cfg().enable, 1);
    EXPECT_EQ(voice_vlan(0), 0);
    EXPECT_CALLS(subscribe_100) << "enabling VLAN 0 only clears the switch";
    EXPECT_EQ(cfg().enable, 0);
    EXPECT_EQ(cfg().vid, 100u);
    EXPECT_EQ(voice_vlan(0x11234), 0);
    EXPECT_EQ(calls({"acl", "ace_set 100", "sub", "unsub"}),
              by_line("ace_set 100 1 if:vid=3412ffff" + remark + " / " + unsubscribe_100 +
                      " / subscribe 6 u_bridge.mac_vid_reg_noti{index{t_fid:70196}} flags=2"))
        << "another VLAN replaces the ACEs in place";
}

TEST_F(GlobalConfiguration, FailuresAreReportedAndTheSwitchKept)
{
    start();
    set_oui(oui_phone, mask24);
    set_port(5, 0, 1); // disabled automatic ports leave, which the store refuses
    set_port(6, 0, 1);
    calls();
    platform().faults = {{"subscribe 6", -5}, {"ace_alloc 1", 1, 0, 1}, {"del 4", -6}};
    EXPECT_EQ(voice_vlan(100), -11);
    EXPECT_EQ(cfg().enable, 1);
    EXPECT_EQ(calls({"ace_set 100", "ace_set 102", "set 4", "del 4"}).find("ace_set 102"), 0u) << "the other half";
    EXPECT_LOGS("error", "error Assert:alloc ace get a (NULL) data. / "
                         "error Assert:remove port(ifx:5) from vvlan fail! / "
                         "error Assert:<ds> subscribe vid_reg_noti failed, rv = -5. / "
                         "error Assert: sub(1) mac addr for voice vlan fail! rv=-5 ");
}

TEST_F(GlobalConfiguration, SecurityModeIsNormalisedAndRebindsEnabledPorts)
{
    prepare();
    EXPECT_EQ(set_glb(6, "secu_mode:5"), 0);
    EXPECT_EQ(cfg().secu_mode, 1);
    EXPECT_CALLS("ace_set 100 1 if:vid=6400ffff do:fwd=00 / bind 100 261");
    set_port(7, 1, 0);
    calls();
    platform().fail("apply_alloc vvlan_secu_deny_app", 1);
    EXPECT_EQ(set_glb(6, ""), 0);
    EXPECT_CALLS("ace_set 100 1 if:vid=6400ffff" + remark +
                 " / set 4 p_bridge.vvlan_err_event{msg_type:4} / "
                 "set 4 p_bridge.vvlan_err_event{msg_type:4}")
        << "for each enabled port";
}

TEST_F(GlobalConfiguration, QosRebuildsTheRemarks)
{
    prepare();
    EXPECT_EQ(set_glb(8, ""), -4);
    EXPECT_CALLS("");
    EXPECT_EQ(set_glb(8, "qos{cos:261 dscp:296}"), 0) << "the low eight bits count";
    const std::string now = " if:vid=6400ffff do:cos=050000000000 do:ipv4_dscp=280000000000 do:prio_in=050000000000";
    EXPECT_CALLS("ace_set 101 1" + phone + now + " / ace_set 100 1" + now);
    platform().fail("ace_alloc 1", 1, 0, 1);
    EXPECT_EQ(set_glb(8, "qos{cos:3 dscp:3}"), 0);
    EXPECT_EQ(calls({"set"}), "set 4 p_bridge.vvlan_err_event{msg_type:3 qos{cos:3 dscp:3}}");
}

TEST_F(GlobalConfiguration, AgeTimeKeepsSixteenBitsAndUnknownFieldsAreRefused)
{
    start();
    for (const auto &[received, stored] : {std::pair{"90", 90}, {"65535", 65535}, {"65536", 0}}) {
        EXPECT_EQ(set_glb(7, std::string("age_time:") + received), 0);
        EXPECT_EQ(cfg().age_time, stored);
    }
    EXPECT_EQ(set_glb(9, ""), -20);
    EXPECT_LOGS("error", "error  field_tag(9)' operation is not found.");
    EXPECT_CALLS("");
}

} // namespace
} // namespace vvl::test
