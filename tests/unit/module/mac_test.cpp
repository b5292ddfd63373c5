// MAC notifications: the subscription and the registration that brings them,
// their decoder, and the table of learned MACs. What they do to a port's bits
// is in port_state_test.cpp.
#include "tests/unit/module/module_test.h"

namespace vvl::test
{
namespace
{

const char subscription[] = "subscribe u_bridge.mac_vid_reg_noti";
const char cycle[] = "dsbegin_ow u_bridge.mac_vid_reg";
const char scan_key[] = "scan u_bridge.mac_vid_reg_noti";
const tq_mom_record_t established = bare_record(TQ_MOM_ESTABLISHED);
const tq_mom_record_t withdrawn = bare_record(TQ_MOM_WITHDRAWN);
const tq_mom_record_t cycle_open = bare_record(0, TQ_MOM_CYCLE_OPEN);

std::string of_vid(const char *call, const char *vid)
{
    return std::string(call) + " 6 u_bridge.mac_vid_reg_noti{index{t_fid:" + vid + "}} flags=2";
}

std::string registration(const char *call, const char *vid)
{
    return std::string(call) + " 6 u_bridge.mac_vid_reg{index{vid:" + vid + "}} ow=1000";
}

std::string registered(const char *vid)
{
    return registration("setow", vid) + " / " + registration("dsend_ow", vid) + " / " + of_vid("scan", vid);
}

class Macs : public ModuleTest
{
  protected:
    Macs()
    {
        prepare();
        set_port(6, 1, 1);
        forget();
    }
    int deliver(const char *key, const tq_mom_record_t &delivered) { return platform().deliver(key, delivered); }
    int deliver(const char *key, int32_t operate, const std::string &fields)
    {
        return deliver(key, record(operate, u_bridge__mac_vid_reg_noti__descriptor, fields));
    }
};

TEST_F(Macs, RegistrationFollowsTheSubscription)
{
    EXPECT_EQ(deliver(subscription, established), 0);
    EXPECT_CALLS("dsbegin_ow 6 u_bridge.mac_vid_reg{index{}} expiry=1000 ow=1000");
    EXPECT_EQ(deliver(cycle, cycle_open), 0);
    EXPECT_CALLS(registered("100"));
    EXPECT_EQ(platform().subscribers.at(scan_key).user, nullptr) << "no port filter";
    voice_vlan(100, 0);
    EXPECT_EQ(calls({"unsub"}), of_vid("unsubscribe", "100"));
    EXPECT_EQ(deliver("unsubscribe u_bridge.mac_vid_reg_noti", withdrawn), 0);
    EXPECT_CALLS(registration("del_ow", "100")) << "the VLAN that was registered, not the present one";
    cfg().vid = 77;
    EXPECT_EQ(deliver(subscription, withdrawn), 0);
    EXPECT_CALLS(registration("del_ow", "77")) << "without a subscription the present one";
    EXPECT_EQ(deliver(cycle, cycle_open), 0);
    EXPECT_CALLS(registered("77"));
}

TEST_F(Macs, AnotherVlanEndsTheOldSubscriptionWheneverItsWithdrawalArrives)
{
    const char *vid = "100";
    for (const bool late : {false, true}) {
        deliver(subscription, established);
        deliver(cycle, cycle_open);
        calls();
        const char *next = late ? "300" : "200";
        voice_vlan(static_cast<uint32_t>(std::stoi(next)));
        EXPECT_EQ(calls({"sub", "unsub"}), of_vid("unsubscribe", vid) + "\n" + of_vid("subscribe", next));
        if (!late) {
            EXPECT_EQ(deliver(subscription, withdrawn), 0);
            EXPECT_CALLS(registration("del_ow", vid));
        }
        deliver(subscription, established);
        calls();
        EXPECT_EQ(deliver(cycle, cycle_open), 0);
        EXPECT_CALLS(registered(next));
        if (late) {
            EXPECT_EQ(deliver(subscription, withdrawn), 0);
            EXPECT_CALLS(registration("del_ow", vid));
        }
        vid = next;
    }
    voice_vlan(300);
    EXPECT_EQ(calls({"sub", "unsub"}), of_vid("subscribe", "300")) << "the same VLAN is only subscribed again";
}

TEST_F(Macs, WithdrawalThatNeverCameIsNotTakenForALaterOne)
{
    voice_vlan(100, 0); // is not answered
    voice_vlan(200);
    deliver(subscription, established);
    deliver(cycle, cycle_open);
    calls();
    EXPECT_EQ(deliver(subscription, withdrawn), 0);
    EXPECT_CALLS(registration("del_ow", "200"));
}

TEST_F(Macs, AnyNumberCanBeSubscribed)
{
    voice_vlan(UINT32_MAX);
    deliver(subscription, established);
    deliver(cycle, cycle_open);
    EXPECT_EQ(calls({"setow"}), registration("setow", "4294967295"));
    voice_vlan(200);
    EXPECT_EQ(calls({"sub", "unsub"}), of_vid("unsubscribe", "4294967295") + "\n" + of_vid("subscribe", "200"));
    deliver(subscription, withdrawn);
    EXPECT_CALLS(registration("del_ow", "4294967295"));
}

TEST_F(Macs, SubscriptionThatCannotBeEndedDoesNotKeepTheNewVlanFromItsOwn)
{
    const struct {
        std::vector<RecordingPlatform::Fault> faults;
        const char *vid;
        int rv;
        const char *error;
        const char *ended; // the VLAN that is still taken as subscribed
    } rows[] = {
        {{{"unsubscribe", -5}}, "200", 0, "error Assert:unsub mac addr for voice vlan(0100) failed, rv = -5.", "100"},
        {{{"unsubscribe", -5}, {"subscribe 6", -6}},
         "300",
         -11,
         "error Assert:unsub mac addr for voice vlan(0200) failed, rv = -5. / "
         "error Assert:<ds> subscribe vid_reg_noti failed, rv = -6. / "
         "error Assert: sub(1) mac addr for voice vlan fail! rv=-6 ",
         "200"},
        {{}, "300", 0, "", "200"},
    };
    for (const auto &row : rows) {
        platform().faults = row.faults;
        EXPECT_EQ(voice_vlan(static_cast<uint32_t>(std::stoi(row.vid))), row.rv);
        EXPECT_LOGS("error", row.error);
        EXPECT_EQ(calls({"sub", "unsub"}), of_vid("unsubscribe", row.ended) + "\n" + of_vid("subscribe", row.vid));
    }
    platform().fail("unsubscribe", -5);
    EXPECT_EQ(voice_vlan(300, 0), -11);
    EXPECT_LOGS("error", "error Assert:unsub mac addr for voice vlan(0300) failed, rv = -5. / "
                         "error Assert: sub(0) mac addr for voice vlan fail! rv=-5 ");
}

TEST_F(Macs, MalformedNotificationsChangeNothing)
{
    const std::string before = bits(5);
    EXPECT_EQ(deliver(subscription, bare_record(TQ_MOM_SET, 0, -11)), -4);
    EXPECT_EQ(deliver(subscription, bare_record(TQ_MOM_SET)), 0);
    EXPECT_EQ(MODULE(udp_vvlan_mac_subscribe_callback)(&platform().global, nullptr, nullptr), -4);
    EXPECT_LOGS("error", "error Assert:MOM error is -11.\\n / error Assert:mac_noti is NULL. / "
                         "error Assert:MOM msg is NULL.\\n");
    for (const char *key :
         {"", "index{t_fid:100}", "index{t_fid:100 t_mac{data:0211220000}}", "index{t_fid:101 t_mac{data:0211220000}}",
          "index{t_fid:100 t_mac{data:02112200000000}}", "index{t_fid:100 t_type:1 t_mac{data:}}"}) {
        for (const int32_t operate : {TQ_MOM_SET, TQ_MOM_DEL}) {
            EXPECT_EQ(deliver(subscription, operate, std::string("{port_id:5 ") + key + "}"), -4) << key;
            EXPECT_NE(logs("error").find("error Assert:notify mac data is invalid."), std::string::npos);
        }
    }
    EXPECT_EQ(bits(5), before);
    EXPECT_EQ(MODULE(udp_vvlan_mac_hash_size)(), 0u);
    EXPECT_CALLS("");
}

TEST_F(Macs, NotificationIsPrintedAndApplied)
{
    const char fields[] = "{index{t_fid:101 t_type:3 t_mac{data:021122103254}} port_type:31 port_id:5 flag:47}";
    EXPECT_EQ(deliver(subscription, TQ_MOM_SET, fields), 0);
    EXPECT_EQ(macs_of(5), "021122103254@5 ") << "another VLAN or type is only remarked on";
    EXPECT_EQ(logs({"info <param>   "}),
              by_line("info <param>   -vlan: 0101 / info <param>   -type: 0x3 / info <param>   -mac: 0211.2210.3254"));
    EXPECT_EQ(deliver(subscription, TQ_MOM_DEL, fields), 0);
    EXPECT_EQ(macs_of(5), "");
    EXPECT_EQ(deliver(subscription, TQ_MOM_PUBLISH, fields), -20);
    EXPECT_LOGS("warn", "warn receive a unexpected event.");
}

TEST_F(Macs, ScanOfOnePortSkipsTheOthers)
{
    EXPECT_EQ(MODULE(udp_vvlan_mac_scan)(5), 0);
    EXPECT_CALLS(of_vid("scan", "100") + " user=5");
    EXPECT_EQ(deliver(scan_key, TQ_MOM_SET, "{index{t_fid:100 t_mac{data:021122000002}} port_id:6}"), 0);
    EXPECT_EQ(deliver(scan_key, TQ_MOM_SET, "{index{t_fid:100 t_mac{data:021122000001}} port_id:5}"), 0);
    EXPECT_EQ(macs_of(5), "021122000001@5 ");
    EXPECT_EQ(macs_of(6), "");
    set_bits(6, "EAjTm");
    EXPECT_EQ(deliver(scan_key, bare_record(TQ_MOM_SET, TQ_MOM_SCAN_OVER)), 0);
    EXPECT_EQ(bits(6), "EAJtM") << "the end of the scan is for all ports";
}

TEST_F(Macs, DevicesAreListedInOrderAndMoveToTheTail)
{
    for (const char *mac : {"021122000001", "021122000002", "021122000003"}) {
        EXPECT_EQ(set_mac(mac, 5), 0);
    }
    set_mac("021122000009", 6);
    set_mac("021122000002", 6);
    set_mac("021122000001", 5); // no move, no change
    set_mac("aa0000000001", 5); // no OUI
    EXPECT_EQ(macs_of(5), "021122000001@5 021122000003@5 ");
    EXPECT_EQ(macs_of(6), "021122000009@6 021122000002@6 ");
    EXPECT_EQ(bits(5)[4], 'm') << "not the last one";

    set_mac("021122000003", 6, 0); // deleted through the port where it is not
    EXPECT_EQ(macs_of(5), "021122000001@5 ");
    EXPECT_EQ(MODULE(udp_vvlan_mac_hash_size)(), 3u);
    set_oui("021122000008", "fffffffffff8"); // covers 8 to f
    set_oui("021122000008", "fffffffffff8", 0);
    EXPECT_EQ(macs_of(5) + macs_of(6), "021122000001@5 021122000002@6 ");
}

} // namespace
} // namespace vvl::test
