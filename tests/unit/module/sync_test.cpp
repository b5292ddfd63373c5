// The cycles that follow the subscriptions: what each establishment starts,
// what a failing step stops, and when the forwarding plane is reconciled.
#include "tests/unit/module/module_test.h"

namespace vvl::test
{
namespace
{

const char oui_key[] = "subscribe p_bridge.vvlan_oui_cfg";
const char oui_open[] = "dsbegin u_bridge.vvlan_oui_cfg";
const char oui_scan[] = "scan p_bridge.vvlan_oui_cfg";
const char port_key[] = "subscribe p_bridge.vvlan_port_cfg";
const char port_open[] = "dsbegin u_bridge.vvlan_port_cfg";
const char port_scan[] = "scan p_bridge.vvlan_port_cfg";
const char glb_key[] = "subscribe p_bridge.vvlan_glb_cfg/";
const char glb_scan[] = "scan p_bridge.vvlan_glb_cfg";
const char noti_key[] = "subscribe s_bridge.vvlan_port_noty";
const char noti_scan[] = "scan s_bridge.vvlan_port_noty";
const tq_mom_record_t established = bare_record(TQ_MOM_ESTABLISHED);
const tq_mom_record_t opened = bare_record(0, TQ_MOM_CYCLE_OPEN);
const tq_mom_record_t opened2 = bare_record(0, TQ_MOM_CYCLE_OPEN2);
const tq_mom_record_t scan_over = bare_record(TQ_MOM_SET, TQ_MOM_SCAN_OVER);
const char oui_fields[] = "{index{mac{data:021122000000} mask{data:ffffff000000}}}";

class Sync : public ModuleTest
{
  protected:
    Sync() { start(); }

    int deliver(const std::string &key, const tq_mom_record_t &record) { return platform().deliver(key, record); }
    // Starts every scan, so that its end can be delivered.
    void begin_all()
    {
        deliver(oui_key, established);
        deliver(oui_open, opened);
        deliver(port_key, established);
        deliver(port_open, opened);
        deliver(std::string(glb_key) + "5", established);
        deliver(noti_key, established);
        calls();
    }
};

TEST_F(Sync, OuiCycleMarksScansAndSweeps)
{
    EXPECT_EQ(deliver(oui_key, established), 0);
    EXPECT_CALLS("dsbegin 8 u_bridge.vvlan_oui_cfg{index{}} expiry=1000");
    EXPECT_EQ(deliver(oui_open, opened), 0);
    EXPECT_EQ(deliver(oui_open, opened2), 0);
    EXPECT_CALLS("scan 4 p_bridge.vvlan_oui_cfg{index{}} / scan 4 p_bridge.vvlan_oui_cfg{index{}}");
    EXPECT_EQ(MODULE(oui_cfg_scan_over), 0);
    // A last record is applied before the sweep.
    const tq_mom_record_t last = record(TQ_MOM_SET, p_bridge__vvlan_oui_cfg__descriptor, oui_fields, TQ_MOM_SCAN_OVER);
    EXPECT_EQ(deliver(oui_scan, last), 0);
    EXPECT_EQ(calls({"set", "dsend"}),
              by_line("set 8 u_bridge.vvlan_oui_cfg{index{ace_id:1} oui{mac{data:021122000000} "
                      "mask{data:ffffff000000}}} / dsend 8 u_bridge.vvlan_oui_cfg{index{}}"));
    EXPECT_EQ(MODULE(oui_cfg_scan_over), 1);
    EXPECT_EQ(deliver(oui_scan, scan_over), -1) << "without a last record";
    EXPECT_CALLS("dsend 8 u_bridge.vvlan_oui_cfg{index{}}");
}

TEST_F(Sync, PortCycleMarksScansAndSweepsThreeTypes)
{
    EXPECT_EQ(deliver(port_key, established), 0);
    EXPECT_CALLS("dsbegin_sync 8 u_bridge.vvlan_join{index{}} expiry=1000 / "
                 "dsbegin_sync 4 p_bridge.vvlan_port_auto{index{}} expiry=1000 / "
                 "dsbegin 8 u_bridge.vvlan_port_cfg{index{}} expiry=1000");
    EXPECT_EQ(deliver(port_open, opened), 0);
    EXPECT_CALLS("scan 4 p_bridge.vvlan_port_cfg{index{}}");
    EXPECT_EQ(deliver(port_scan, scan_over), -1);
    EXPECT_CALLS("dsend 8 u_bridge.vvlan_join{index{}} / dsend 4 p_bridge.vvlan_port_auto{index{}} / "
                 "dsend 8 u_bridge.vvlan_port_cfg{index{}}");
    EXPECT_EQ(MODULE(port_cfg_scan_over), 1);
    EXPECT_EQ(platform().subscribers.at("dsend u_bridge.vvlan_join").user, nullptr);
    for (const char *type : {"u_bridge.vvlan_join", "p_bridge.vvlan_port_auto", "u_bridge.vvlan_port_cfg"}) {
        EXPECT_EQ(deliver(std::string("dsend ") + type, bare_record(0, TQ_MOM_NOTHING)), 0) << type;
    }
    EXPECT_CALLS("");
}

TEST_F(Sync, PlainCyclesScanAndEnd)
{
    for (const char *field : {"6", "7", "8", "5"}) {
        EXPECT_EQ(deliver(std::string(glb_key) + field, established), 0);
        EXPECT_CALLS("scan 4 p_bridge.vvlan_glb_cfg{}");
        EXPECT_EQ(deliver(glb_scan, scan_over), -1);
        EXPECT_EQ(MODULE(glb_cfg_scan_over), *field == '5') << "the switch's scan stands for all";
    }
    EXPECT_EQ(deliver(noti_key, established), 0);
    EXPECT_CALLS("scan 0 s_bridge.vvlan_port_noty{index{}}");
    EXPECT_EQ(deliver(noti_scan, scan_over), -1);
    EXPECT_EQ(MODULE(port_noti_scan_over), 1);
}

TEST_F(Sync, PlaneIsReconciledByTheLastOfTheFourCyclesInAnyOrder)
{
    begin_all();
    const char *const scans[] = {oui_scan, port_scan, glb_scan, noti_scan};
    uint8_t *const flags[] = {&MODULE(oui_cfg_scan_over), &MODULE(port_cfg_scan_over), &MODULE(glb_cfg_scan_over),
                              &MODULE(port_noti_scan_over)};
    for (int last = 0; last < 4; last++) {
        *flags[0] = *flags[1] = *flags[2] = *flags[3] = 0;
        for (int i = 1; i <= 3; i++) {
            deliver(scans[(last + i) % 4], scan_over);
            EXPECT_EQ(calls({"a"}), "") << scans[last] << " is still to come";
        }
        deliver(scans[last], scan_over);
        EXPECT_EQ(calls({"a"}), by_line("acl_del_expired vvlan_secu_pas_app / ace_del_expired vvlan_secu_pas_app / "
                                        "apply_del_expired vvlan_secu_pas_app / acl_del_expired mac_vlan_app / "
                                        "ace_del_expired mac_vlan_app / apply_del_expired mac_vlan_app / "
                                        "acl_del_expired vvlan_secu_deny_app / ace_del_expired vvlan_secu_deny_app / "
                                        "apply_del_expired vvlan_secu_deny_app"));
    }
}

TEST_F(Sync, FailedStepEndsItsCycle)
{
    const struct {
        const char *key;
        tq_mom_record_t record;
        const char *failing;
        int rv;
        size_t made; // calls, the failing one being the last
        const char *error;
    } rows[] = {
        {oui_key, established, "dsbegin 8", 0, 1, "pexpire oui_cfg failed"},
        {oui_open, opened, "scan 4", 3, 1, "scan oui configure failed"},
        {oui_scan, scan_over, "dsend 8", -1, 1, "del pexpire oui_cfg failed"},
        {port_key, established, "dsbegin_sync 8", 0, 1, "pexpire vvlan_join failed"},
        {port_key, established, "dsbegin_sync 4", 0, 2, "pexpire port_auto failed"},
        {port_key, established, "dsbegin 8", 0, 3, "pexpire port_cfg failed"},
        {port_open, opened2, "scan 4", 3, 1, "scan port configure failed"},
        {port_scan, scan_over, "dsend 8 u_bridge.vvlan_join", -1, 1, "del pexpire vvlan_join failed"},
        {port_scan, scan_over, "dsend 4", -1, 2, "del pexpire port_auto failed"},
        {port_scan, scan_over, "dsend 8 u_bridge.vvlan_port_cfg", -1, 3, "del pexpire port_cfg failed"},
        {"subscribe p_bridge.vvlan_glb_cfg/5", established, "scan 4", 3, 1, "scan global configure failed"},
        {noti_key, established, "scan 0", 3, 1, "scan port notice failed"},
    };
    begin_all();
    logs();
    for (const auto &row : rows) {
        SCOPED_TRACE(std::string(row.key) + ", " + row.failing);
        // With the cycle's own flag set as well, the plane would be reconciled.
        MODULE(oui_cfg_scan_over) = MODULE(port_cfg_scan_over) = 0;
        MODULE(glb_cfg_scan_over) = MODULE(port_noti_scan_over) = 1;
        platform().fail(row.failing, 3);
        EXPECT_EQ(deliver(row.key, row.record), row.rv);
        EXPECT_EQ(platform().lines.size(), row.made);
        EXPECT_EQ(platform().lines.back().rfind(row.failing, 0), 0u);
        EXPECT_LOGS("error", std::string("error Assert:<ds> ") + row.error + ", rv = 3.");
        EXPECT_EQ(MODULE(oui_cfg_scan_over) + MODULE(port_cfg_scan_over), 0);
        calls();
    }
}

TEST_F(Sync, FailedSubscriptionIsTheLastOne)
{
    const char *const subscriptions[] = {"subscribe 4 p_bridge.vvlan_oui_cfg", "subscribe_field 4",
                                         "subscribe 4 p_bridge.vvlan_port_cfg", "subscribe 0"};
    for (size_t failing = 0; failing < 4; failing++) {
        platform().fail(subscriptions[failing], -11);
        platform().lines.clear();
        EXPECT_EQ(MODULE(udp_vvlan_ds_init)(&platform().global, "udp_vvlan"), -11);
        EXPECT_EQ(platform().lines.size(), failing + 1);
    }
}

TEST_F(Sync, CallbackNeedsItsRecordAndItsEntryAndUsesTheContextThatItIsGiven)
{
    for (const std::string key : {oui_key, "subscribe p_bridge.vvlan_glb_cfg/5", port_key, noti_key}) {
        const RecordingPlatform::Subscriber &subscriber = platform().subscribers.at(key);
        EXPECT_EQ(subscriber.function(&platform().global, nullptr, subscriber.user), -4) << key;
        EXPECT_LOGS("", "error Assert:MOM msg is NULL.\\n");
    }
    tq_mom_record_t begin = established;
    EXPECT_EQ(MODULE(udp_vvlan_ds_callback)(&platform().global, &begin, nullptr), -1);
    EXPECT_CALLS("");
    tq_global_t other = platform().global;
    const RecordingPlatform::Subscriber subscriber = platform().subscribers.at(oui_key);
    subscriber.function(&other, &begin, subscriber.user);
    EXPECT_CALLS("dsbegin 8 u_bridge.vvlan_oui_cfg{index{}} expiry=1000 @other");
}

} // namespace
} // namespace vvl::test
