// From the host's first call to the initialised module, and again after a
// database was lost. Where the process ends, its last lines are read from
// standard error.
#include "tests/unit/module/module_test.h"

#include <sstream>

namespace vvl::test
{
namespace
{

using testing::ExitedWithCode;

const std::string second_initialisation =
    "scan_sync 8 u_bridge.vvlan_join{index{}} / subscribe 4 p_bridge.vvlan_oui_cfg{index{}} / "
    "subscribe_field 4 p_bridge.vvlan_glb_cfg{} 5 6 7 8 / subscribe 4 p_bridge.vvlan_port_cfg{index{}} / "
    "subscribe 0 s_bridge.vvlan_port_noty{index{}}";

const std::string first_initialisation =
    "fp.register 8 / fp.cgst_register 8 udp_vvlan / fp.get_mgr / "
    "acl_expire vvlan_secu_pas_app / ace_expire vvlan_secu_pas_app / apply_expire vvlan_secu_pas_app / "
    "acl_expire mac_vlan_app / ace_expire mac_vlan_app / apply_expire mac_vlan_app / "
    "acl_expire vvlan_secu_deny_app / ace_expire vvlan_secu_deny_app / apply_expire vvlan_secu_deny_app / "
    "ddm.init udp_vvlan / set 0 s_cluster.reg_pkt_info{index{name:pkt_vvlan} dlib_name:libpkt.vvlan.sw.so} / " +
    second_initialisation + " / timer 60.0s udp_vvlan";

class Startup : public ModuleTest
{
  protected:
    void begin()
    {
        open();
        MODULE(udp_vvlan_rdnd_aware_callback)();
        calls();
    }
    int reconnect(uint32_t db, int32_t type) { return platform().reconnect_cb(&platform().global, db, type); }
    void disconnect(uint32_t db) { platform().disconnect_cb(&platform().global, db); }
};

TEST_F(Startup, HookConnectsInOrderAndFourthDistinctDatabaseInitialisesInAnyOrder)
{
    begin();
    for (const uint32_t db : {8, 8, 0, 6, 0}) {
        connect(db);
        EXPECT_CALLS("") << db;
    }
    EXPECT_EQ(MODULE(udp_vvlan_rdnd_aware_callback)(1, "any role"), 0); // waits for all four again
    EXPECT_CALLS("connect_sync 4 / connect 4 / set_disconnect_cb 4 / set_reconnect_cb 4 / "
                 "connect_sync 0 / connect 0 / set_disconnect_cb 0 / set_reconnect_cb 0 / "
                 "connect_sync 6 / connect 6 / set_disconnect_cb 6 / set_reconnect_cb 6 / "
                 "connect_sync 8 / connect 8 / set_disconnect_cb 8 / set_reconnect_cb 8");
    for (const uint32_t db : {4, 0, 6}) {
        connect(db);
        EXPECT_CALLS("") << db;
    }
    connect(8);
    EXPECT_CALLS(first_initialisation);
}

TEST_F(Startup, ReconnectionOfTypeTwoOfTheMissingDatabaseInitialisesAgain)
{
    start();
    uint8_t *const flags[] = {&MODULE(oui_cfg_scan_over), &MODULE(port_cfg_scan_over), &MODULE(glb_cfg_scan_over),
                              &MODULE(port_noti_scan_over)};
    for (uint8_t *flag : flags) {
        *flag = 1;
    }
    MODULE(udp_vvlan_add_recover_entry)(5);
    disconnect(6);
    for (const int32_t type : {0, 1, 3}) {
        EXPECT_EQ(reconnect(6, type), 77);
    }
    EXPECT_EQ(reconnect(8, 2), 0);
    EXPECT_CALLS("") << "database 6 is still waiting";
    logs();
    EXPECT_EQ(reconnect(6, 2), 0);
    EXPECT_CALLS(second_initialisation);
    EXPECT_EQ(*flags[0] + *flags[1] + *flags[2] + *flags[3], 0);
    EXPECT_EQ(MODULE(udp_vvlan_get_recover_entry)(5), nullptr) << "read again from the store";
    EXPECT_LOGS("warn", "warn <mom> mom(6) reconnected, type = 2.");
}

// A store that answers each request before the call returns.
void answer_at_once(const std::string &line)
{
    std::istringstream words(line);
    std::string call;
    std::string db;
    std::string type;
    words >> call >> db >> type;
    type.resize(std::min(type.find('{'), type.size()));
    const auto deliver = [](const std::string &key, int32_t operate, int32_t phase) {
        platform().deliver(key, bare_record(operate, phase));
    };
    if (call == "connect") {
        platform().connect_cb(&platform().global, platform().connect_users.at(static_cast<uint32_t>(std::stoi(db))));
    } else if (call == "subscribe") {
        deliver(call + " " + type, TQ_MOM_ESTABLISHED, TQ_MOM_RECORD);
    } else if (call == "subscribe_field") {
        for (const char *field : {"/5", "/6", "/7", "/8"}) {
            deliver("subscribe " + type + field, TQ_MOM_ESTABLISHED, TQ_MOM_RECORD);
        }
    } else if (call == "unsubscribe") {
        deliver(call + " " + type, TQ_MOM_WITHDRAWN, TQ_MOM_RECORD);
    } else if (call == "dsbegin" || call == "dsbegin_ow") {
        deliver(call + " " + type, 0, TQ_MOM_CYCLE_OPEN);
    } else if (call == "scan") {
        deliver(call + " " + type, TQ_MOM_SET, TQ_MOM_SCAN_OVER);
    }
}

TEST_F(Startup, AnswersFromInsideTheCallsDoWhatLaterOnesDo)
{
    open();
    platform().on_call = answer_at_once;
    EXPECT_EQ(MODULE(udp_vvlan_rdnd_aware_callback)(), 0);
    EXPECT_EQ(calls({"acl_del_expired", "timer"}),
              by_line("acl_del_expired vvlan_secu_pas_app / acl_del_expired mac_vlan_app / "
                      "acl_del_expired vvlan_secu_deny_app / timer 60.0s udp_vvlan"));
    const Lines registration = {"unsubscribe", "del_ow", "subscribe", "setow"};
    EXPECT_EQ(voice_vlan(100), 0);
    calls();
    EXPECT_EQ(voice_vlan(200), 0);
    EXPECT_EQ(calls(registration), by_line("unsubscribe 6 u_bridge.mac_vid_reg_noti{index{t_fid:100}} flags=2 / "
                                           "del_ow 6 u_bridge.mac_vid_reg{index{vid:100}} ow=1000 / "
                                           "subscribe 6 u_bridge.mac_vid_reg_noti{index{t_fid:200}} flags=2 / "
                                           "setow 6 u_bridge.mac_vid_reg{index{vid:200}} ow=1000"));
    platform().fail("unsubscribe", -5);
    EXPECT_EQ(voice_vlan(300), 0);
    EXPECT_EQ(calls({"setow"}), "setow 6 u_bridge.mac_vid_reg{index{vid:300}} ow=1000");
}

TEST_F(Startup, FailedConnectionStepEndsTheProcessWithItsCode)
{
    open();
    platform().echo = true;
    for (const char *step : {"connect_sync 0", "connect 0", "set_disconnect_cb 0", "set_reconnect_cb 0"}) {
        platform().fail(step, 9);
        // The asynchronous connection is armed even where the synchronous one failed.
        const std::string last = step == std::string("connect_sync 0") ? "connect 0" : step;
        EXPECT_EXIT(MODULE(udp_vvlan_rdnd_aware_callback)(), ExitedWithCode(9),
                    last + "\nerror <init> udp_vvlan_mom_connect failed, rv = 9.\nglobal.finish\n$");
    }
}

TEST_F(Startup, FailedInitialisationRunsEveryStepAndEndsTheProcessWithTheOredCode)
{
    begin();
    platform().faults = {
        {"fp.register", 0x10}, {"ddm.init", 0x20}, {"scan_sync", 1}, {"subscribe 4 p_bridge.vvlan_port_cfg", 2}};
    platform().echo = true;
    EXPECT_EXIT(connect_all(), ExitedWithCode(0x33),
                "fp.register 8\nerror Assert:<init> register fp failed, rv = 16.\n"
                "ddm.init udp_vvlan\nerror Assert:<init> init ddm failed, rv = 32.\n"
                "scan_sync [^\n]*\nerror Assert:<ds> scan vvlan_join failed, rv = 1.\n(.*\n)*"
                "subscribe 4 p_bridge.vvlan_port_cfg[^\n]*\nerror Assert:<ds> subscribe port config failed, rv = 2.\n"
                "debug [^\n]*\ntimer 60.0s udp_vvlan\n"
                "error Assert:<init> init vvlan failed, restart now!\n"
                "error <exit> init udp vvlan failed, rv = 51.\n$");
}

TEST_F(Startup, NullContextAndUnknownDatabaseAreReportedAndChangeNothing)
{
    start();
    EXPECT_EQ(MODULE(udp_vvlan_global_init)(nullptr), -4);
    EXPECT_EQ(MODULE(g_udp_vvlan_global), &platform().global);
    EXPECT_LOGS("", "error Assert:<init> udp_vvlan_global_init failed.");
    uint32_t unknown = 99;
    platform().disconnect_cb(&platform().global, 6);
    logs();
    EXPECT_EQ(MODULE(udp_vvlan_mom_connect_callback)(&platform().global, &unknown), 0);
    EXPECT_EQ(MODULE(udp_vvlan_mom_disconnect_callback)(&platform().global, unknown), 0);
    EXPECT_LOGS("error", "error <status: udp_vvlan> event(99) is not found.\\n / "
                         "error <status: udp_vvlan> udp_vvlan_mom_disconnect_callback event(99) is not found.\\n");
    EXPECT_CALLS("");
    connect(6);
    EXPECT_NE(calls(), "") << "the four databases are complete";
}

TEST_F(Startup, ForwardingPlaneThatCannotBeRegisteredWithIsNotUsed)
{
    begin();
    platform().fail("fp.cgst_register", 9);
    EXPECT_EQ(MODULE(udp_vvlan_fp_init)(&platform().global, "udp_vvlan"), 9);
    EXPECT_CALLS("fp.register 8 / fp.cgst_register 8 udp_vvlan");
    EXPECT_LOGS("error", "error Assert:<init> register fp congestion failed, rv = 9.");
    platform().fail("fp.get_mgr", 1);
    platform().echo = true;
    EXPECT_EXIT(connect_all(), ExitedWithCode(256 - 17),
                "fp.get_mgr\nerror Assert:<init> get fp mgr failed.\nddm.init (.*\n)*"
                "error <exit> init udp vvlan failed, rv = -17.\n$");
}

TEST_F(Startup, FailedReinitialisationEndsTheProcess)
{
    start();
    platform().faults = {{"scan_sync", 4}, {"subscribe_field", 8}};
    platform().echo = true;
    EXPECT_EXIT(reconnect(0, 2), ExitedWithCode(12),
                "error Assert:<ds> subscribe global configure failed, rv = 8.\n"
                "error Assert:<reinit> reinit vvlan failed, restart now!\n"
                "error <exit> init udp vvlan failed, rv = 12.\n$");
}

} // namespace
} // namespace vvl::test
