// Decoders: which records reach a handler, and that malformed ones change
// nothing; the error events. The MAC notifications' decoder is in mac_test.cpp.
#include "tests/unit/module/module_test.h"

namespace vvl::test
{
namespace
{

constexpr char oui[] = "udp_vvlan_event_set_oui_cfg";
constexpr char glb[] = "udp_vvlan_event_set_glb_cfg";
constexpr char port_cfg[] = "udp_vvlan_event_set_port_cfg";
constexpr char noti[] = "udp_vvlan_event_set_port_noti";
constexpr char recovery[] = "udp_vvlan_recover_vvlan_cfg";

class Decoders : public ModuleTest
{
  protected:
    Decoders() { prepare(); }
    int decode(const char *decoder, tq_mom_record_t decoded, uint32_t tag = 0)
    {
        return (*symbol<decltype(udp_vvlan_event_set_oui_cfg)>(decoder))(&platform().global, &decoded, tag);
    }
    int decode(const char *decoder, int32_t operate, const std::string &fields)
    {
        const ProtobufCMessageDescriptor &type = decoder == oui        ? p_bridge__vvlan_oui_cfg__descriptor
                                                 : decoder == port_cfg ? p_bridge__vvlan_port_cfg__descriptor
                                                 : decoder == noti     ? s_bridge__vvlan_port_noty__descriptor
                                                                       : u_bridge__vvlan_join__descriptor;
        return decode(decoder, record(operate, type, fields));
    }
    // A hash-set of a configuration, in which these fields changed.
    int decode_glb(std::vector<uint32_t> fields, uint32_t tag, int32_t operate = TQ_MOM_HSET, int32_t error = 0)
    {
        const tq_mom_record_t whole =
            record(0, p_bridge__vvlan_glb_cfg__descriptor, "{secu_mode:1 age_time:90 qos{cos:5 dscp:40}}");
        return decode_hash(
            {static_cast<ProtobufCMessage *>(whole.object), fields.data(), static_cast<uint32_t>(fields.size()), error},
            tag, operate);
    }
    int decode_hash(tq_mom_hash_t hash, uint32_t tag, int32_t operate = TQ_MOM_HSET)
    {
        return decode(glb, {operate, &hash, TQ_MOM_RECORD, 0}, tag);
    }
};

TEST_F(Decoders, NullAndFailedAndBareRecords)
{
    const struct {
        const char *decoder;
        int rv;
        const char *error;
    } rows[] = {
        {oui, -4, ""},
        {glb, -4, "error Assert:MOM hash is NULL.\\n"},
        {port_cfg, -4, "error Assert:msg port_cfg param failed."},
        {noti, 0, "error Assert:msg vvlan_port_noty param failed."},
        {recovery, 0, "error Assert:msg vvlan_join param failed."},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.decoder);
        EXPECT_EQ((*symbol<decltype(udp_vvlan_event_set_oui_cfg)>(row.decoder))(&platform().global, nullptr, 5), -4);
        EXPECT_EQ(decode(row.decoder, bare_record(TQ_MOM_SET, TQ_MOM_NOTHING, -11), 5), -4);
        EXPECT_LOGS("", "error Assert:MOM msg is NULL.\\n / error Assert:MOM error is -11.\\n");
        EXPECT_EQ(decode(row.decoder, bare_record(TQ_MOM_SET), 5), row.rv);
        EXPECT_LOGS("error", row.error);
    }
    EXPECT_EQ(decode(port_cfg, bare_record(TQ_MOM_SET, TQ_MOM_NOTHING)), 0) << "the answer of a sweep";
    EXPECT_LOGS("", "");
    EXPECT_CALLS("");
}

TEST_F(Decoders, UnexpectedOperationsAndIncompleteMessagesChangeNothing)
{
    EXPECT_EQ(decode(oui, TQ_MOM_PUBLISH, "{index{mac{data:021122000000} mask{data:ffffff000000}}}"), -20);
    EXPECT_EQ(decode(port_cfg, TQ_MOM_HSET, "{index{ifx:6} enable:1 mode:1}"), -20);
    EXPECT_EQ(decode(noti, TQ_MOM_DEL, "{index{phyid:261}}"), -20);
    EXPECT_EQ(decode(recovery, TQ_MOM_PUBLISH, "{index{ifx:6}}"), -20);
    EXPECT_LOGS("", "warn receive a unexpected event. operate=24 . / warn receive a unexpected event. / "
                    "warn receive a unexpected event. operate=3 .");
    for (const int32_t operate : {TQ_MOM_SET, TQ_MOM_DEL}) {
        for (const char *fields :
             {"{}", "{index{}}", "{index{mac{data:021122000000}}}", "{index{mask{data:ffffff000000}}}",
              "{index{mac{data:0211220000} mask{data:ffffff000000}}}", "{index{mac{data:021122000000} mask{data:ff}}}",
              "{index{mac{data:02112200000000} mask{data:ffffff000000}}}", "{index{mac{data:} mask{data:}}}"}) {
            EXPECT_EQ(decode(oui, operate, fields), -4) << fields;
            EXPECT_NE(logs("error"), "");
        }
        EXPECT_EQ(decode(port_cfg, operate, "{enable:1 mode:1}"), -4);
        EXPECT_EQ(decode(recovery, operate, "{}"), -4);
    }
    EXPECT_EQ(decode(noti, TQ_MOM_PUBLISH, "{}"), -4);
    EXPECT_CALLS("");
}

// What the decoders refuse first, the handlers refuse for other callers, too.
TEST_F(Decoders, HandlersRefuseMessagesWithoutTheirKey)
{
    const UBridge__MacVidRegNoti keyless = U_BRIDGE__MAC_VID_REG_NOTI__INIT;
    for (const UBridge__MacVidRegNoti *message : {static_cast<const UBridge__MacVidRegNoti *>(nullptr), &keyless}) {
        EXPECT_EQ(MODULE(udp_vvlan_handler_set_mac_noti)(1, message), -4);
        EXPECT_LOGS("error", "error Assert:notify mac data is invalid.");
    }
    EXPECT_EQ(set_mac("0211", 5), -4);
    for (const char *handler :
         {"udp_vvlan_handler_set_oui_cfg", "udp_vvlan_handler_set_port_cfg", "udp_vvlan_handler_set_port_noti"}) {
        EXPECT_EQ(symbol<int(uint32_t, const void *)>(handler)(1, nullptr), -4) << handler;
    }
    EXPECT_EQ(MODULE(udp_vvlan_handler_set_glb_cfg)(1, nullptr, 6), -4);
    EXPECT_EQ(bits(5), "EAJTM");
    EXPECT_CALLS("");
}

TEST_F(Decoders, HandlersGetTheOperationAndTheirResultIsPassedOn)
{
    const char fields[] = "{index{mac{data:aabbcc000000} mask{data:ffffff000000}}}";
    EXPECT_EQ(decode(oui, TQ_MOM_DEL, fields), -7);
    EXPECT_EQ(decode(port_cfg, TQ_MOM_DEL, "{index{ifx:9}}"), -7);
    EXPECT_LOGS("error", "error Assert: vvlan_oui, not find! / error Assert:set vvlan oui failed, rv = -7. / "
                         "error Assert:not find port by ifx(9)! / error Assert:set vvlan port_cfg failed, rv = -7.");
    EXPECT_EQ(decode(oui, TQ_MOM_SET, fields), 0);
    EXPECT_NE(calls({"ace_set 101 2"}), "");
    EXPECT_EQ(decode(oui, TQ_MOM_DEL, fields), 0);
    EXPECT_NE(calls({"ace_del 101 2"}), "");
    for (const int32_t operate : {TQ_MOM_SET, TQ_MOM_PUBLISH}) {
        set_bits(5, "EAjTM");
        EXPECT_EQ(decode(noti, operate, "{index{phyid:261}}"), 0);
        EXPECT_EQ(bits(5), "EAJtM") << operate;
    }
    for (const auto &[failing, decoder, operate, message, rv] :
         {std::tuple{"ddm.ifx_of", noti, TQ_MOM_SET, "{index{phyid:261}}", -7},
          {"set 4", noti, TQ_MOM_SET, "{index{phyid:261}}", -5},
          {"del 8", port_cfg, TQ_MOM_DEL, "{index{ifx:5}}", -11}}) {
        set_bits(5, "EAjTM");
        platform().fail(failing, rv);
        EXPECT_EQ(decode(decoder, operate, message), rv) << failing;
    }
}

TEST_F(Decoders, HashSetAppliesTheSubscribedFieldAlone)
{
    EXPECT_EQ(decode_glb({5, 6, 7, 8}, 7), 0);
    EXPECT_EQ(cfg().age_time, 90);
    EXPECT_EQ(cfg().cos + cfg().secu_mode, 6);
    EXPECT_EQ(decode_glb({5, 8}, 6), 0) << "not among the changed fields";
    EXPECT_EQ(decode_glb({6}, 6, TQ_MOM_SET, -6), 0) << "a message, of which nothing is read";
    EXPECT_EQ(decode_glb({6}, 0), -4) << "no tag";
    EXPECT_EQ(decode_glb({6}, 6, TQ_MOM_HSET, -6), -4) << "not built";
    EXPECT_EQ(decode_glb({5}, 5), -4) << "no glb_switch";
    EXPECT_LOGS("error", "error Assert:MOM args is NULL.\\n / error Assert:MOM hash error is -6.\\n / "
                         "error Assert:glb_switch is NULL! / error Assert:set vvlan glb_cfg failed, rv = -4.");
    EXPECT_EQ(decode_glb({}, 6), 0) << "no field changed";
    EXPECT_LOGS("error", "");
    const Message whole = to_message(p_bridge__vvlan_glb_cfg__descriptor, "{secu_mode:1}");
    uint32_t field = 6;
    for (const tq_mom_hash_t &incomplete : {tq_mom_hash_t{nullptr, &field, 1, 0}, {whole.get(), nullptr, 1, 0}}) {
        EXPECT_EQ(decode_hash(incomplete, 6), -4);
        EXPECT_LOGS("error",
                    "error Assert:MOM hash is incomplete.\\n / error Assert:set vvlan glb_cfg failed, rv = -4.");
    }
    EXPECT_EQ(cfg().secu_mode, 0);
    EXPECT_CALLS("");
}

const std::string clear_auto = "clear_expire 4 p_bridge.vvlan_port_auto{index{ifx:6}}";
const std::string get_auto = " / get_sync 4 p_bridge.vvlan_port_auto{index{ifx:6} enable:1}";
const std::string set_auto = " / set 4 p_bridge.vvlan_port_auto{index{ifx:6} enable:1}";
const std::string clear_join = " / clear_expire 8 u_bridge.vvlan_join{index{ifx:6}}";

TEST_F(Decoders, AutomaticPortKeepsItsJoinStateThroughTheSweep)
{
    const char automatic[] = "{index{ifx:6} enable:0 mode:1}";
    cfg().cos_acl.created = cfg().mvlan_acl.created = cfg().sec_acl.created = 0;
    EXPECT_EQ(decode(port_cfg, TQ_MOM_SET, automatic), 0);
    const std::string made = calls();
    EXPECT_EQ(made.substr(0, made.find("\nddm")), by_line(clear_auto + get_auto + " / free null" + clear_join));
    for (const char *other : {"{index{ifx:7} mode:0}", "{index{ifx:7} mode:3}"}) {
        EXPECT_EQ(decode(port_cfg, TQ_MOM_SET, other), 0);
        EXPECT_EQ(calls({"clear_expire", "get_sync", "free"}), "") << other;
    }

    delete_port(6);
    forget();
    const Message stored = to_message(p_bridge__vvlan_port_auto__descriptor, "{index{ifx:6} enable:1}");
    platform().stored = stored.get();
    const struct {
        const char *failing;
        std::string made;
    } rows[] = {{"clear_expire 4", clear_auto},
                {"set 4", clear_auto + get_auto + set_auto + " / free"},
                {"clear_expire 8", clear_auto + get_auto + set_auto + " / free" + clear_join}};
    for (const auto &row : rows) {
        platform().fail(row.failing, -11);
        EXPECT_EQ(decode(port_cfg, TQ_MOM_SET, automatic), -11) << row.failing;
        EXPECT_CALLS(row.made);
        EXPECT_LOGS("warn", "warn rv = -11");
        EXPECT_EQ(port(6), nullptr) << "unconfigured";
    }
}

TEST_F(Decoders, JoinObjectsAreReadBackIntoTheRecoveryTable)
{
    const Message five = to_message(u_bridge__vvlan_join__descriptor, "{index{ifx:5}}");
    const Message zero = to_message(u_bridge__vvlan_join__descriptor, "{index{}}");
    platform().sync_records = {{TQ_MOM_SET, five.get(), 0, 0}, {TQ_MOM_SET, zero.get(), 0, 0}};
    EXPECT_EQ(MODULE(udp_vvlan_recover_ds_init)(&platform().global), 0);
    EXPECT_EQ(MODULE(udp_vvlan_recover_table_init)(), 0) << "keeps the table that is there";
    vvlan_recover_t *entry = MODULE(udp_vvlan_get_recover_entry)(5);
    EXPECT_EQ(MODULE(udp_vvlan_add_recover_entry)(5), entry);
    EXPECT_NE(MODULE(udp_vvlan_get_recover_entry)(0), nullptr);
    EXPECT_EQ(MODULE(udp_vvlan_recover_hash_size)(), 2u);
    for (int again = 0; again < 2; again++) {
        EXPECT_EQ(decode(recovery, TQ_MOM_DEL, "{index{ifx:5}}"), 0);
        EXPECT_EQ(MODULE(udp_vvlan_recover_hash_size)(), 1u);
    }
    EXPECT_EQ(decode(recovery, TQ_MOM_SET, "{index{ifx:5}}"), 0);
    MODULE(udp_vvlan_recover_db_clear)(); // of two
    EXPECT_EQ(MODULE(udp_vvlan_recover_hash_size)(), 0u);
}

TEST_F(Decoders, ErrorEventsOfUnknownTypeOrWithoutTheirDataAreNotWritten)
{
    MODULE(udp_vvlan_handler_err_event)(5, nullptr);
    EXPECT_LOGS("", "error err_type(5) not support！");
    MODULE(udp_vvlan_handler_err_event)(1, nullptr);
    MODULE(udp_vvlan_handler_err_event)(2, nullptr);
    EXPECT_CALLS("");
    MODULE(udp_vvlan_handler_err_event)(0, nullptr);
    EXPECT_CALLS("set 4 p_bridge.vvlan_err_event{vid:100}");
}

} // namespace
} // namespace vvl::test
