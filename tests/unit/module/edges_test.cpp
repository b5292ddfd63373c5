// What correct callers and a healthy platform do not bring about: calls without
// their data, tables and connections that are not there, and the failures of
// single calls that leave the rest of an operation to be done or left undone.
#include "tests/unit/module/module_test.h"

namespace vvl::test
{
namespace
{

using testing::ExitedWithCode;

const char incomplete[] = "error Assert:MOM hash is incomplete.\\n / error Assert:set vvlan glb_cfg failed, rv = -4.";

std::string of_vid(const char *call, const char *vid)
{
    return std::string(call) + " 6 u_bridge.mac_vid_reg_noti{index{t_fid:" + vid + "}} flags=2";
}

class Edges : public ModuleTest
{
  protected:
    // The exported functions of a table whose initialisation has not run.
    template <typename Record> void expect_nothing_without_table(const std::string &name)
    {
        SCOPED_TRACE(name);
        const auto function = [&](const char *suffix) { return "udp_vvlan_" + name + suffix; };
        const auto stop = [](Record *, void *) { return 1; };
        Record item = {};
        Record *out = &item;
        EXPECT_EQ(symbol<int(Record *)>(function("_hash_insert").c_str())(&item), 0);
        EXPECT_EQ(symbol<Record *(const Record *)>(function("_hash_find").c_str())(&item), nullptr);
        symbol<void(const Record *)>(function("_hash_remove").c_str())(&item);
        EXPECT_EQ(symbol<uint32_t()>(function("_hash_size").c_str())(), 0u);
        EXPECT_EQ(symbol<int(int (*)(Record *, void *), void *)>(function("_hash_traverse").c_str())(stop, nullptr), 0);
        EXPECT_EQ(symbol<Record *(Record **, const Record *)>(function("_cache_create").c_str())(&out, &item), nullptr);
        EXPECT_EQ(out, nullptr);
    }
    // Voice VLAN 100 with an OUI and a trapped automatic port 5.
    void prepare()
    {
        start();
        set_oui(oui_phone, mask24);
        voice_vlan(100);
        set_port(5, 1, 1);
        calls();
        logs();
    }
    int on_mac_subscription(tq_mom_record_t delivered)
    {
        return MODULE(udp_vvlan_mac_subscribe_callback)(&platform().global, &delivered, nullptr);
    }
    int decode_glb(ProtobufCMessage *message, uint32_t *fields, uint32_t count)
    {
        tq_mom_hash_t hash = {message, fields, count, 0};
        tq_mom_record_t hset = {TQ_MOM_HSET, &hash, TQ_MOM_RECORD, 0};
        return MODULE(udp_vvlan_event_set_glb_cfg)(&platform().global, &hset, 6);
    }
};

TEST_F(Edges, UnknownDatabaseIsReportedAndCompletesNothing)
{
    start();
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

TEST_F(Edges, SubscriptionsReportNullRecords)
{
    start();
    for (const char *key : {"subscribe p_bridge.vvlan_oui_cfg", "subscribe p_bridge.vvlan_glb_cfg/5",
                            "subscribe p_bridge.vvlan_port_cfg", "subscribe s_bridge.vvlan_port_noty"}) {
        const RecordingPlatform::Subscriber &subscriber = platform().subscribers.at(key);
        EXPECT_EQ(subscriber.function(&platform().global, nullptr, subscriber.user), -4) << key;
        EXPECT_LOGS("", "error Assert:MOM msg is NULL.\\n");
    }
    EXPECT_CALLS("");
}

TEST_F(Edges, HashSetsWithoutMessageOrFieldsChangeNothing)
{
    start();
    const Message whole = to_message(p_bridge__vvlan_glb_cfg__descriptor, "{secu_mode:1}");
    uint32_t field = 6;
    EXPECT_EQ(decode_glb(nullptr, &field, 1), -4);
    EXPECT_LOGS("error", incomplete);
    EXPECT_EQ(decode_glb(whole.get(), nullptr, 1), -4);
    EXPECT_LOGS("error", incomplete);
    EXPECT_EQ(decode_glb(whole.get(), nullptr, 0), 0) << "no field changed";
    EXPECT_LOGS("error", "");
    EXPECT_EQ(cfg().secu_mode, 0);
    EXPECT_CALLS("");
}

TEST_F(Edges, ForwardingPlaneThatCannotBeRegisteredWithIsNotUsed)
{
    open();
    platform().faults = {{"fp.cgst_register", 9, 0, -1}};
    EXPECT_EQ(MODULE(udp_vvlan_fp_init)(&platform().global, "udp_vvlan"), 9);
    EXPECT_CALLS("fp.register 8 / fp.cgst_register 8 udp_vvlan");
    EXPECT_LOGS("", "error Assert:<init> register fp congestion failed, rv = 9.");

    MODULE(udp_vvlan_rdnd_aware_callback)();
    for (const uint32_t db : {4, 0, 6}) {
        connect(db);
    }
    platform().faults = {{"fp.get_mgr", 1, 0, -1}};
    platform().echo = true;
    EXPECT_EXIT(connect(8), ExitedWithCode(256 - 17),
                "fp.get_mgr\nerror Assert:<init> get fp mgr failed.\nddm.init (.*\n)*"
                "error <exit> init udp vvlan failed, rv = -17.\n$");
}

TEST_F(Edges, AceIdsOutsideTheirRangeFreeNothing)
{
    for (uint32_t id = 1; id <= 127; id++) {
        ASSERT_EQ(MODULE(udp_vvlan_alloc_ace_id)(), id);
    }
    for (const int id : {-1, 128, 128 + 8, INT32_MIN, INT32_MAX}) {
        MODULE(udp_vvlan_free_ace_id)(id);
        EXPECT_EQ(MODULE(udp_vvlan_alloc_ace_id)(), 0u) << id;
    }
    MODULE(udp_vvlan_free_ace_id)(127);
    EXPECT_EQ(MODULE(udp_vvlan_alloc_ace_id)(), 127u);
}

TEST_F(Edges, HandlersRefuseMessagesWithoutTheirKey)
{
    prepare();
    const PBridge__VvlanOuiCfg oui = P_BRIDGE__VVLAN_OUI_CFG__INIT;
    const PBridge__VvlanPortCfg port_cfg = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    const SBridge__VvlanPortNoty noti = S_BRIDGE__VVLAN_PORT_NOTY__INIT;
    UBridge__UdpL2addrBaseIndex index = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
    UBridge__MacVidRegNoti mac = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    UBridge__MacVidRegNoti mac_index = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    mac.port_id = mac_index.port_id = 5;
    mac_index.index = &index;
    const std::string before = bits(5);
    EXPECT_EQ(MODULE(udp_vvlan_handler_set_glb_cfg)(1, nullptr, 6), -4);
    EXPECT_LOGS("error", "error Assert:msg glb_cfg param failed.");
    for (const uint32_t add : {0u, 1u}) {
        for (const auto *msg : {static_cast<decltype(&oui)>(nullptr), &oui}) {
            EXPECT_EQ(MODULE(udp_vvlan_handler_set_oui_cfg)(add, msg), -4);
            EXPECT_LOGS("error", "error Assert:msg oui_cfg param failed.");
        }
        for (const auto *msg : {static_cast<decltype(&port_cfg)>(nullptr), &port_cfg}) {
            EXPECT_EQ(MODULE(udp_vvlan_handler_set_port_cfg)(add, msg), -4);
            EXPECT_LOGS("error", "error Assert:msg port_cfg param failed.");
        }
        for (const auto *msg : {static_cast<decltype(&noti)>(nullptr), &noti}) {
            EXPECT_EQ(MODULE(udp_vvlan_handler_set_port_noti)(add, msg), -4);
            EXPECT_LOGS("error", "error Assert:msg vvlan_port_noty param failed.");
        }
        for (const UBridge__MacVidRegNoti *msg : {static_cast<UBridge__MacVidRegNoti *>(nullptr), &mac, &mac_index}) {
            EXPECT_EQ(MODULE(udp_vvlan_handler_set_mac_noti)(add, msg), -4);
            EXPECT_LOGS("error", "error Assert:notify mac data is invalid.");
        }
    }
    EXPECT_EQ(bits(5), before);
    EXPECT_CALLS("");
}

TEST_F(Edges, TablesBeforeTheirInitialisationAreEmpty)
{
    open();
    expect_nothing_without_table<vvlan_mac_t>("mac");
    expect_nothing_without_table<vvlan_port_t>("port");
    expect_nothing_without_table<vvlan_recover_t>("recover");
}

TEST_F(Edges, AbsentAndPresentKeysLeaveTheTableAsItIs)
{
    start();
    vvlan_port_t absent = {};
    absent.ifx = 9;
    MODULE(udp_vvlan_port_hash_remove)(&absent);
    set_port(5, 1, 1);
    MODULE(udp_vvlan_port_hash_remove)(&absent);
    MODULE(udp_vvlan_port_hash_remove)(nullptr);
    EXPECT_EQ(MODULE(udp_vvlan_port_op)(&absent, 0), nullptr);
    EXPECT_EQ(MODULE(udp_vvlan_port_hash_size)(), 1u);

    vvlan_port_t present = {};
    present.ifx = 5;
    vvlan_port_t *out = nullptr;
    EXPECT_EQ(MODULE(udp_vvlan_port_cache_create)(&out, &present), port(5));
    EXPECT_EQ(out, port(5));
    EXPECT_EQ(bits(5), "EAJtM") << "the record keeps what the template does not have";
    EXPECT_EQ(MODULE(udp_vvlan_port_hash_size)(), 1u);
}

TEST_F(Edges, SubscriptionThatCannotBeEndedStaysRemembered)
{
    prepare();
    platform().faults = {{"unsubscribe", -5, 0, -1}};
    const std::string failed = "error Assert:unsub mac addr for voice vlan(0100) failed, rv = -5. / ";
    EXPECT_EQ(voice_vlan(200), -11);
    EXPECT_LOGS("error", failed + "error Assert: sub(1) mac addr for voice vlan fail! rv=-5 ");
    EXPECT_EQ(calls({"sub", "unsub"}), of_vid("unsubscribe", "100")) << "the new subscription is not made";
    EXPECT_EQ(voice_vlan(200, 0), -11);
    EXPECT_LOGS("error", failed + "error Assert: sub(0) mac addr for voice vlan fail! rv=-5 ");
    EXPECT_EQ(calls({"sub", "unsub"}), of_vid("unsubscribe", "100"));

    platform().faults.clear();
    EXPECT_EQ(voice_vlan(300), 0);
    EXPECT_EQ(calls({"sub", "unsub"}), of_vid("unsubscribe", "100") + "\n" + of_vid("subscribe", "300"));
}

TEST_F(Edges, RegistrationWithoutASubscriptionIsForThePresentVlan)
{
    start();
    cfg().vid = 77;
    EXPECT_EQ(on_mac_subscription(bare_record(TQ_MOM_WITHDRAWN)), 0);
    EXPECT_CALLS("del_ow 6 u_bridge.mac_vid_reg{index{vid:77}} ow=1000");
    EXPECT_EQ(on_mac_subscription(bare_record(0, TQ_MOM_CYCLE_OPEN)), 0);
    EXPECT_CALLS("setow 6 u_bridge.mac_vid_reg{index{vid:77}} ow=1000 / "
                 "dsend_ow 6 u_bridge.mac_vid_reg{index{vid:77}} ow=1000 / " +
                 of_vid("scan", "77"));
}

TEST_F(Edges, AceOfAnOuiThatCannotBeAllocatedIsReportedAtSwitchingOn)
{
    start();
    set_oui(oui_phone, mask24);
    const struct {
        int skip; // the security ACE has the same id and comes first
        const char *kind;
        const char *installed;
    } rows[] = {{1, "cos", "ace_set 100 1"}, {2, "mvlan", "ace_set 100 1 / ace_set 101 1"}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.kind);
        calls();
        logs();
        platform().faults = {{"ace_alloc 1", 1, row.skip, 1}};
        EXPECT_EQ(voice_vlan(100), 0);
        EXPECT_LOGS("error", "error Assert:alloc ace get a (NULL) data. / error Assert:add " + std::string(row.kind) +
                                 "_ace fail !");
        std::string made; // the calls without the fields of their ACEs
        for (const std::string &line : platform().lines) {
            made += line.rfind("ace_set", 0) == 0 ? line.substr(0, 13) + "\n" : "";
        }
        EXPECT_EQ(made, by_line(row.installed) + "\n");
        EXPECT_EQ(calls({"set 4"}), "set 4 p_bridge.vvlan_err_event{vid:100}");
        EXPECT_EQ(cfg().enable, 1);
    }
}

TEST_F(Edges, OuisBeyondTheAceIdsAreNotMatchedPastTheEndOfTheSpans)
{
    start();
    const auto oui = [](uint8_t i) { return std::vector<uint8_t>{i, 0, 0, 0, 0, 0}; };
    const std::vector<uint8_t> mask = {0xff, 0xff, 0xff, 0, 0, 0};
    for (uint8_t i = 1; i <= 128; i++) {
        if (i == 128) {
            MODULE(udp_vvlan_free_ace_id)(1); // an id given back while its OUI stays
        }
        ASSERT_NE(MODULE(udp_vvlan_oui_add_node)(oui(i).data(), mask.data()), nullptr);
    }
    int matched = 0;
    for (uint8_t i = 1; i <= 128; i++) {
        matched += MODULE(udp_vvlan_oui_find_mac)(oui(i).data()) != nullptr;
    }
    EXPECT_EQ(matched, 127);
    EXPECT_NE(MODULE(udp_vvlan_oui_find_node)(oui(127).data(), mask.data()), nullptr);
    EXPECT_EQ(MODULE(udp_vvlan_oui_find_mac)(oui(127).data()), nullptr) << "the last of the last bucket";
}

TEST_F(Edges, PortWhoseTrapStaysIsNotTakenOutOfTheVoiceVlan)
{
    prepare();
    ASSERT_EQ(set_mac("021122000001", 5), 0);
    set_bits(5, "EAjTm");
    calls();
    logs();
    platform().faults = {{"del 8 u_bridge.vvlan_port_cfg", -5, 0, -1}};
    EXPECT_EQ(set_port(5, 0, 1), 0);
    EXPECT_LOGS("error", "error Assert:port(ifx: 5) set(add: 0) vvlan(100) fail. / "
                         "error Assert:set vvlan en del fail! / error Assert:config port(ifx:5) fail!");
    EXPECT_CALLS("del 8 u_bridge.vvlan_port_cfg{index{ifx:5}} / unbind 101 261 / unbind 102 261 opt / unbind 100 261");
    EXPECT_EQ(macs_of(5), "021122000001@5 ");
}

TEST_F(Edges, PortWithoutBothVoiceAclsHasNeitherBoundNorATrap)
{
    prepare();
    cfg().mvlan_acl.created = 0;
    EXPECT_EQ(MODULE(udp_vvlan_port_cfg_sec)(port(5), nullptr), 0);
    EXPECT_CALLS("");
    EXPECT_EQ(MODULE(udp_vvlan_port_unaply_acl)(port(5)), 0);
    EXPECT_CALLS("unbind 100 261");
}

TEST_F(Edges, WalksWithoutARecordAreAnsweredWithTheirCode)
{
    start();
    for (auto *walk : {&MODULE(udp_vvlan_port_cfg), &MODULE(udp_vvlan_port_mac), &MODULE(udp_vvlan_port_remove_vvlan),
                       &MODULE(udp_vvlan_port_cfg_sec), &MODULE(udp_vvlan_port_set_sec)}) {
        EXPECT_EQ(walk(nullptr, nullptr), 4);
        EXPECT_LOGS("", "error pointer NULL!");
    }
    vvlan_mac_t record = {};
    vvlan_oui_t oui = {};
    EXPECT_EQ(MODULE(udp_vvlan_port_clear_mac)(nullptr, 0), 4);
    EXPECT_EQ(MODULE(udp_vvlan_del_oui_mac)(nullptr, &oui), 4);
    EXPECT_EQ(MODULE(udp_vvlan_del_oui_mac)(&record, nullptr), 4);
    EXPECT_LOGS("", "error pointer NULL! / error pointer NULL! / error pointer NULL!");
    EXPECT_CALLS("");
}

} // namespace
} // namespace vvl::test
