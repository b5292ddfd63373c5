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
const std::string glb_key = "subscribe p_bridge.vvlan_glb_cfg/"; // and a field
const char glb_scan[] = "scan p_bridge.vvlan_glb_cfg";
const char mac_key[] = "subscribe u_bridge.mac_vid_reg_noti";
const char mac_open[] = "dsbegin_ow u_bridge.mac_vid_reg";
const char noti_key[] = "subscribe s_bridge.vvlan_port_noty";
const char noti_scan[] = "scan s_bridge.vvlan_port_noty";
const tq_mom_record_t established = bare_record(TQ_MOM_ESTABLISHED);
const tq_mom_record_t opened = bare_record(0, TQ_MOM_CYCLE_OPEN);
const tq_mom_record_t opened2 = bare_record(0, TQ_MOM_CYCLE_OPEN2);
const tq_mom_record_t scan_over = bare_record(TQ_MOM_SET, TQ_MOM_SCAN_OVER);
const tq_mom_record_t swept = bare_record(0, TQ_MOM_NOTHING);

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
        deliver(glb_key + "5", established);
        deliver(noti_key, established);
        calls();
    }
    void set_flags(uint8_t value)
    {
        for (uint8_t *flag : flags_) {
            *flag = value;
        }
    }

    // Whether each scan is over.
    uint8_t *const flags_[4] = {&MODULE(oui_cfg_scan_over), &MODULE(port_cfg_scan_over), &MODULE(glb_cfg_scan_over),
                                &MODULE(port_noti_scan_over)};
};

TEST_F(Sync, EachStepOfACycleAsksForTheNext)
{
    const struct {
        std::string key;
        tq_mom_record_t record;
        int rv;
        const char *made;
        int over; // the flag that is set then; -1: none
    } rows[] = {
        {oui_key, established, 0, "dsbegin 8 u_bridge.vvlan_oui_cfg{index{}} expiry=1000", -1},
        {oui_open, opened, 0, "scan 4 p_bridge.vvlan_oui_cfg{index{}}", -1},
        {oui_open, opened2, 0, "scan 4 p_bridge.vvlan_oui_cfg{index{}}", -1},
        {oui_scan, scan_over, -1, "dsend 8 u_bridge.vvlan_oui_cfg{index{}}", 0},
        {port_key, established, 0,
         "dsbegin_sync 8 u_bridge.vvlan_join{index{}} expiry=1000 / "
         "dsbegin_sync 4 p_bridge.vvlan_port_auto{index{}} expiry=1000 / "
         "dsbegin 8 u_bridge.vvlan_port_cfg{index{}} expiry=1000",
         -1},
        {port_open, opened, 0, "scan 4 p_bridge.vvlan_port_cfg{index{}}", -1},
        {port_scan, scan_over, -1,
         "dsend 8 u_bridge.vvlan_join{index{}} / dsend 4 p_bridge.vvlan_port_auto{index{}} / "
         "dsend 8 u_bridge.vvlan_port_cfg{index{}}",
         1},
        {"dsend u_bridge.vvlan_join", swept, 0, "", -1},
        {"dsend p_bridge.vvlan_port_auto", swept, 0, "", -1},
        {"dsend u_bridge.vvlan_port_cfg", swept, 0, "", -1},
        {glb_key + "6", established, 0, "scan 4 p_bridge.vvlan_glb_cfg{}", -1},
        {glb_scan, scan_over, -1, "", -1}, // the switch's scan stands for all
        {glb_key + "5", established, 0, "scan 4 p_bridge.vvlan_glb_cfg{}", -1},
        {glb_scan, scan_over, -1, "", 2},
        {noti_key, established, 0, "scan 0 s_bridge.vvlan_port_noty{index{}}", -1},
        {noti_scan, scan_over, -1, "", 3},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.key);
        set_flags(0);
        EXPECT_EQ(deliver(row.key, row.record), row.rv);
        EXPECT_CALLS(row.made);
        for (int i = 0; i < 4; i++) {
            EXPECT_EQ(*flags_[i], i == row.over) << i;
        }
    }
}

TEST_F(Sync, LastRecordIsAppliedBeforeTheSweep)
{
    begin_all();
    deliver(oui_scan, record(TQ_MOM_SET, p_bridge__vvlan_oui_cfg__descriptor,
                             "{index{mac{data:021122000000} mask{data:ffffff000000}}}", TQ_MOM_SCAN_OVER));
    EXPECT_EQ(calls({"set", "dsend"}),
              by_line("set 8 u_bridge.vvlan_oui_cfg{index{ace_id:1} oui{mac{data:021122000000} "
                      "mask{data:ffffff000000}}} / dsend 8 u_bridge.vvlan_oui_cfg{index{}}"));
}

TEST_F(Sync, PlaneIsReconciledByTheLastOfTheFourCyclesInAnyOrder)
{
    begin_all();
    const char *const scans[] = {oui_scan, port_scan, glb_scan, noti_scan};
    for (int last = 0; last < 4; last++) {
        set_flags(0);
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
        std::string key;
        tq_mom_record_t record;
        const char *failing;
        int rv;
        size_t made; // calls, the failing one being the last
        const char *error;
    } rows[] = {
        {oui_key, established, "dsbegin 8", 0, 1, "<ds> pexpire oui_cfg failed"},
        {oui_open, opened, "scan 4", 3, 1, "<ds> scan oui configure failed"},
        {oui_scan, scan_over, "dsend 8", -1, 1, "<ds> del pexpire oui_cfg failed"},
        {port_key, established, "dsbegin_sync 8", 0, 1, "<ds> pexpire vvlan_join failed"},
        {port_key, established, "dsbegin_sync 4", 0, 2, "<ds> pexpire port_auto failed"},
        {port_key, established, "dsbegin 8", 0, 3, "<ds> pexpire port_cfg failed"},
        {port_open, opened2, "scan 4", 3, 1, "<ds> scan port configure failed"},
        {port_scan, scan_over, "dsend 8 u_bridge.vvlan_join", -1, 1, "<ds> del pexpire vvlan_join failed"},
        {port_scan, scan_over, "dsend 4", -1, 2, "<ds> del pexpire port_auto failed"},
        {port_scan, scan_over, "dsend 8 u_bridge.vvlan_port_cfg", -1, 3, "<ds> del pexpire port_cfg failed"},
        {glb_key + "5", established, "scan 4", 3, 1, "<ds> scan global configure failed"},
        {mac_key, established, "dsbegin_ow 6", 0, 1, "<ds> pexpire vid_reg failed"},
        {mac_key, bare_record(TQ_MOM_WITHDRAWN), "del_ow 6", 3, 1, "unreg mac addr for vvlan(0100) failed"},
        {mac_open, opened, "setow 6", 3, 1, "reg mac addr for vvlan(0100) failed"},
        {mac_open, opened, "scan 6", 3, 3, "scan mac noti for vvlan(0100) failed"},
        {noti_key, established, "scan 0", 3, 1, "<ds> scan port notice failed"},
    };
    voice_vlan(100);
    begin_all();
    logs();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.key + ", " + row.failing);
        // With the cycle's own flag set as well, the plane would be reconciled.
        MODULE(oui_cfg_scan_over) = MODULE(port_cfg_scan_over) = 0;
        MODULE(glb_cfg_scan_over) = MODULE(port_noti_scan_over) = 1;
        platform().fail(row.failing, 3);
        EXPECT_EQ(deliver(row.key, row.record), row.rv);
        EXPECT_EQ(platform().lines.size(), row.made);
        EXPECT_EQ(platform().lines.back().rfind(row.failing, 0), 0u);
        EXPECT_EQ(logs("error").find(std::string("error Assert:") + row.error + ", rv = 3."), 0u);
        EXPECT_EQ(MODULE(oui_cfg_scan_over) + MODULE(port_cfg_scan_over), 0);
        calls();
    }
}

TEST_F(Sync, CallbackNeedsItsRecordAndItsEntryAndUsesTheContextThatItIsGiven)
{
    for (const std::string &key : {std::string(oui_key), glb_key + "5", std::string(port_key), std::string(noti_key)}) {
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
