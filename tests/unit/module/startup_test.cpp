// From the host's first call to the initialised module, and again after a
// database was lost. Where the process ends, its last lines are read from
// standard error.
#include "tests/unit/module/module_test.h"

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

TEST_F(Startup, NullContextIsRefusedAndTheStoredOneKept)
{
    open();
    EXPECT_EQ(MODULE(udp_vvlan_global_init)(nullptr), -4);
    EXPECT_EQ(MODULE(g_udp_vvlan_global), &platform().global);
    EXPECT_LOGS("", "error Assert:<init> udp_vvlan_global_init failed.");
}

TEST_F(Startup, HookConnectsTheFourDatabasesInOrder)
{
    open();
    EXPECT_EQ(MODULE(udp_vvlan_rdnd_aware_callback)(1, "any role"), 0);
    EXPECT_CALLS("connect_sync 4 / connect 4 / set_disconnect_cb 4 / set_reconnect_cb 4 / "
                 "connect_sync 0 / connect 0 / set_disconnect_cb 0 / set_reconnect_cb 0 / "
                 "connect_sync 6 / connect 6 / set_disconnect_cb 6 / set_reconnect_cb 6 / "
                 "connect_sync 8 / connect 8 / set_disconnect_cb 8 / set_reconnect_cb 8");
}

TEST_F(Startup, FourthDistinctDatabaseInitialisesInAnyOrder)
{
    begin();
    for (const uint32_t db : {8, 8, 0, 6, 0}) {
        connect(db);
        EXPECT_CALLS("") << db;
    }
    MODULE(udp_vvlan_rdnd_aware_callback)(); // waits for all four again
    calls();
    for (const uint32_t db : {4, 0, 6}) {
        connect(db);
        EXPECT_CALLS("") << db;
    }
    logs();
    connect(8);
    EXPECT_CALLS(first_initialisation);
    EXPECT_LOGS("info <", "info <status:event(8) of udp_vvlan> update already.\\n / "
                          "info <status: udp_vvlan> udp_vvlan_mom_connect_callback is already now. / "
                          "info <mom> all mom is connected now. / info <init> init fp successfully. / "
                          "info <ds> subscribe oui  / info <ds> subscribe global configure  / "
                          "info <ds> subscribe port config  / info <ds> subscribe port_noti  / "
                          "info <ds> subscribe successfully. / info <init> init vvlan successfully.");
}

TEST_F(Startup, ReconnectionOfTypeTwoInitialisesAgain)
{
    start();
    uint8_t *const flags[] = {&MODULE(oui_cfg_scan_over), &MODULE(port_cfg_scan_over), &MODULE(glb_cfg_scan_over),
                              &MODULE(port_noti_scan_over)};
    for (uint8_t *flag : flags) {
        *flag = 1;
    }
    MODULE(udp_vvlan_add_recover_entry)(5);
    disconnect(6);
    EXPECT_EQ(reconnect(6, 2), 0);
    EXPECT_CALLS(second_initialisation);
    EXPECT_EQ(*flags[0] + *flags[1] + *flags[2] + *flags[3], 0);
    EXPECT_EQ(MODULE(udp_vvlan_get_recover_entry)(5), nullptr) << "read anew from the store";
    EXPECT_LOGS("warn", "warn <mom> mom(6) is disconneted. / warn <mom> mom(6) reconnected, type = 2.");
}

TEST_F(Startup, OtherReconnectionsChangeNothingAndLeaveTheDatabaseWaiting)
{
    start();
    disconnect(6);
    for (const int32_t type : {0, 1, 3}) {
        EXPECT_EQ(reconnect(6, type), 77);
    }
    EXPECT_EQ(reconnect(8, 2), 0);
    EXPECT_CALLS("") << "database 6 is still waiting";
    EXPECT_EQ(reconnect(6, 2), 0);
    EXPECT_CALLS(second_initialisation);
}

TEST_F(Startup, FailedConnectionStepEndsTheProcessWithItsCode)
{
    open();
    platform().echo = true;
    for (const char *step : {"connect_sync 0", "connect 0", "set_disconnect_cb 0", "set_reconnect_cb 0"}) {
        platform().faults = {{step, 9, 0, -1}};
        // The asynchronous connection is armed even where the synchronous one failed.
        const std::string last = step == std::string("connect_sync 0") ? "connect 0" : step;
        EXPECT_EXIT(MODULE(udp_vvlan_rdnd_aware_callback)(), ExitedWithCode(9),
                    last + "\nerror <init> udp_vvlan_mom_connect failed, rv = 9.\nglobal.finish\n$");
    }
}

TEST_F(Startup, FailedInitialisationRunsEveryStepAndEndsTheProcessWithTheOredCode)
{
    begin();
    for (const uint32_t db : {4, 0, 6}) {
        connect(db);
    }
    platform().faults = {{"fp.register", 0x10, 0, -1},
                         {"ddm.init", 0x20, 0, -1},
                         {"scan_sync", 1, 0, -1},
                         {"subscribe 4 p_bridge.vvlan_port_cfg", 2, 0, -1}};
    platform().echo = true;
    EXPECT_EXIT(connect(8), ExitedWithCode(0x33),
                "fp.register 8\nerror Assert:<init> register fp failed, rv = 16.\n"
                "ddm.init udp_vvlan\nerror Assert:<init> init ddm failed, rv = 32.\n"
                "scan_sync [^\n]*\nerror Assert:<ds> scan vvlan_join failed, rv = 1.\n(.*\n)*"
                "error Assert:<ds> subscribe port config failed, rv = 2.\n(.*\n)*timer 60.0s udp_vvlan\n"
                "error Assert:<init> init vvlan failed, restart now!\n"
                "error <exit> init udp vvlan failed, rv = 51.\n$");
}

TEST_F(Startup, FailedReinitialisationEndsTheProcess)
{
    start();
    platform().faults = {{"scan_sync", 4, 0, -1}, {"subscribe_field", 8, 0, -1}};
    platform().echo = true;
    EXPECT_EXIT(reconnect(0, 2), ExitedWithCode(12),
                "error Assert:<ds> subscribe global configure failed, rv = 8.\n"
                "error Assert:<reinit> reinit vvlan failed, restart now!\n"
                "error <exit> init udp vvlan failed, rv = 12.\n$");
}

} // namespace
} // namespace vvl::test
