// Every event that changes a port, as one table: the port before, the event,
// the port afterwards, and what reached the store and the plane for it.
#include "tests/unit/module/module_test.h"

#include <map>

namespace vvl::test
{
namespace
{

// Conditions of a row. Without them: the voice VLAN is on, all ACLs exist, the
// port scan is over, the port has no recovery entry and no MAC.
enum : unsigned { off = 1, no_acls = 2, scanning = 4, recovered = 8, with_mac = 16 };

// The calls for port 5, whose physical id is 261, as they stand in the rows.
const std::map<std::string, std::string> words = {
    {"set 8 u_bridge.vvlan_port_cfg{index{ifx:5}}", "trap+"},
    {"del 8 u_bridge.vvlan_port_cfg{index{ifx:5}}", "trap-"},
    {"set 8 u_bridge.vvlan_join{index{ifx:5}}", "join+"},
    {"del 8 u_bridge.vvlan_join{index{ifx:5}}", "join-"},
    {"set 4 p_bridge.vvlan_port_auto{index{ifx:5} enable:1}", "auto+"},
    {"del 4 p_bridge.vvlan_port_auto{index{ifx:5}}", "auto-"},
    {"set 4 p_bridge.vvlan_err_event{msg_type:1 ifx:5}", "report"},
    {"bind 101 261", "cos+"},
    {"unbind 101 261", "cos-"},
    {"bind 102 261 opt", "mvlan+"},
    {"unbind 102 261 opt", "mvlan-"},
    {"bind 100 261", "sec+"},
    {"unbind 100 261", "sec-"},
    {"scan 6 u_bridge.mac_vid_reg_noti{index{t_fid:100}} flags=2 user=5", "rescan"},
};

class PortState : public ModuleTest
{
  public:
    PortState()
    {
        prepare();
        delete_port(5);
        set_port(6, 1, 1);
    }

    // bits empty: there is no port 5.
    void given(const std::string &before, unsigned conditions = 0)
    {
        if (!before.empty()) {
            vvlan_port_t tmpl = {};
            tmpl.ifx = 5;
            tmpl.phyid = 261;
            MODULE(udp_vvlan_port_op)(&tmpl, 1)->no_flw = 60;
            set_bits(5, before);
        }
        if ((conditions & with_mac) != 0) {
            const vvlan_mac_t tmpl = {{2, 0x11, 0x22, 0, 0, 1}, {}, 5};
            udp_vvlan_list_append(&port(5)->mac_list, &MODULE(udp_vvlan_mac_op)(&tmpl, 1)->link);
        }
        if ((conditions & recovered) != 0) {
            MODULE(udp_vvlan_add_recover_entry)(5);
        }
        if ((conditions & no_acls) != 0) {
            cfg().cos_acl.created = cfg().mvlan_acl.created = cfg().sec_acl.created = 0;
        }
        cfg().enable = (conditions & off) == 0;
        MODULE(port_cfg_scan_over) = (conditions & scanning) == 0;
        forget();
    }
    // What was done for port 5, and whether it has an entry and MACs now.
    std::string effects()
    {
        std::string text;
        for (const std::string &line : std::exchange(platform().lines, {})) {
            const auto found = words.find(line);
            text += found != words.end() ? found->second + " " : "";
        }
        text += MODULE(udp_vvlan_get_recover_entry)(5) != nullptr ? "[entry] " : "";
        text += port(5) != nullptr && !macs_of(5).empty() ? "[mac] " : "";
        return text.substr(0, text.size() - !text.empty());
    }

    void set_automatic() { set_port(5, 1, 1); }
    void set_manual() { set_port(5, 1, 0); }
    void disable_automatic() { set_port(5, 0, 1); }
    void disable_manual() { set_port(5, 0, 0); }
    void remove() { delete_port(5); }
    void notify() { notify_port(5); }
    void learn() { set_mac("021122000001", 5); }
    void learn_foreign() { set_mac("aa0000000001", 5); }
    void learn_elsewhere() { set_mac("021122000001", 6); }
    void unlearn() { set_mac("021122000001", 5, 0); }
    void delete_oui() { set_oui(oui_phone, mask24, 0); }
    void add_oui() { set_oui("aabbcc000000", mask24); }
    void end_mac_scan()
    {
        tq_mom_record_t over = bare_record(TQ_MOM_SET, TQ_MOM_SCAN_OVER);
        MODULE(udp_vvlan_event_set_mac_noti)(&platform().global, &over, nullptr);
    }
    void age() { platform().timer(nullptr); }
    void age_out()
    {
        cfg().age_time = 2;
        age();
    }
    void secure() { set_glb(6, ""); }
    void switch_on() { voice_vlan(100); }
    void switch_off() { voice_vlan(100, 0); }
};

struct Row {
    const char *name;
    const char *before;
    unsigned conditions;
    void (PortState::*event)();
    const char *after;
    uint32_t no_flw; // 60 before
    const char *effects;
};

using P = PortState;
const Row rows[] = {
    // Configuration, and the apply step behind it.
    {"new_automatic_while_off", "", off, &P::set_automatic, "EAJtM", 0, ""},
    {"new_disabled", "", 0, &P::disable_manual, "eaJtM", 0, "cos- mvlan- sec-"},
    {"new_manual", "", 0, &P::set_manual, "EaJtM", 0, "trap- cos+ mvlan+ sec+"},
    {"new_automatic", "", 0, &P::set_automatic, "EAJTM", 0, "cos- mvlan- trap+ sec+ rescan"},
    {"new_while_scanning", "", scanning, &P::set_automatic, "EAJTM", 0, "cos- mvlan- trap+ sec+ rescan"},
    {"rejoin", "", scanning | recovered, &P::set_automatic, "EAJtM", 0, "trap- cos+ mvlan+ sec+ rescan [entry]"},
    {"entry_after_scan", "", recovered, &P::set_automatic, "EAJTM", 0, "cos- mvlan- trap+ sec+ rescan [entry]"},
    {"new_without_acls", "", no_acls, &P::set_automatic, "EAJtM", 0, "rescan"},
    {"set_again_while_off", "eaJTm", off, &P::set_automatic, "EAJTm", 60, ""},
    {"joined_to_manual", "EAJtm", with_mac, &P::set_manual, "EaJtm", 60, "trap- cos+ mvlan+ sec+"},
    {"joined_set_again", "EAJtm", with_mac, &P::set_automatic, "EAJTm", 60, "cos- mvlan- trap+ sec+ rescan [mac]"},
    {"disable_manual", "EaJTm", with_mac, &P::disable_manual, "eaJTm", 60, "cos- mvlan- sec- [mac]"},
    {"disable_joined", "EAJtm", with_mac | recovered, &P::disable_automatic, "eAjTm", 60,
     "cos- mvlan- sec- join- auto- cos- mvlan-"},
    {"disable_waiting", "EAjTM", 0, &P::disable_automatic, "eAjTM", 60,
     "trap- cos- mvlan- sec- join- auto- cos- mvlan-"},
    {"disable_while_off", "EAJtM", off, &P::disable_automatic, "eAjTM", 60, "cos- mvlan- sec- join- auto- cos- mvlan-"},
    {"disable_without_acls", "EAjTM", no_acls, &P::disable_automatic, "eAjTM", 60, "join- auto- cos- mvlan-"},
    {"delete_waiting", "EAjTm", with_mac | recovered, &P::remove, "gone", 0, "trap- cos- mvlan- sec- [entry]"},
    {"delete_joined", "EAJtM", 0, &P::remove, "gone", 0, "cos- mvlan- sec-"},
    {"delete_manual", "EaJTM", 0, &P::remove, "gone", 0, "cos- mvlan- sec-"},
    {"delete_without_acls", "EAjTM", no_acls, &P::remove, "gone", 0, ""},

    // Port notifications.
    {"notify_waiting", "EAjTM", 0, &P::notify, "EAJtM", 60, "join+ auto+ trap- cos+ mvlan+ [entry]"},
    {"notify_joined", "EAJtm", recovered, &P::notify, "EAJtm", 60, "join+ auto+ trap- cos+ mvlan+ [entry]"},
    {"notify_without_acls", "EAjTM", no_acls, &P::notify, "EAJtM", 60, "join+ auto+ trap- cos+ mvlan+ [entry]"},
    {"notify_manual", "EajTM", 0, &P::notify, "EajTM", 60, ""},
    {"notify_disabled", "eAjTM", 0, &P::notify, "eAjTM", 60, ""},
    {"notify_unknown", "", 0, &P::notify, "gone", 0, ""},

    // Learned MACs.
    {"first_mac", "EAjTM", 0, &P::learn, "EAJtm", 0, "[mac]"},
    {"known_mac", "EAjTM", with_mac, &P::learn, "EAjTm", 0, "[mac]"},
    {"foreign_mac_alone", "EAjTm", 0, &P::learn_foreign, "EAJtM", 0, ""},
    {"foreign_mac", "EAjTm", with_mac, &P::learn_foreign, "EAjTm", 60, "[mac]"},
    {"mac_on_manual", "EajTM", 0, &P::learn, "EajTM", 60, ""},
    {"mac_on_disabled", "eAjTM", 0, &P::learn, "eAjTM", 60, ""},
    {"last_mac_removed", "EAjTm", with_mac, &P::unlearn, "EAJtM", 0, ""},
    {"unknown_mac_removed", "EAjTm", 0, &P::unlearn, "EAJtM", 0, ""},
    {"mac_removed_from_manual", "EajTm", with_mac, &P::unlearn, "EajTm", 60, "[mac]"},
    {"mac_moved_away", "EAjTm", with_mac, &P::learn_elsewhere, "EAjTM", 0, ""},
    {"mac_stays_on_manual", "EajTm", with_mac, &P::learn_elsewhere, "EajTm", 60, "[mac]"},
    {"oui_of_last_mac_deleted", "EAjTm", with_mac, &P::delete_oui, "EAjTM", 0, ""},
    {"oui_deleted_for_manual", "EajTm", with_mac, &P::delete_oui, "EajTm", 60, ""},
    {"mac_scan_over", "eajTm", 0, &P::end_mac_scan, "eaJtM", 0, ""},
    {"mac_scan_over_with_mac", "EAjTm", with_mac, &P::end_mac_scan, "EAjTm", 60, "[mac]"},

    // Aging.
    {"age", "EAJtM", recovered, &P::age, "EAJtM", 120, "[entry]"},
    {"age_out", "EAJtM", recovered, &P::age_out, "EAjTM", 0, "join- auto- trap+ cos- mvlan- trap+"},
    {"age_while_off", "EAJtM", off, &P::age_out, "EAJtM", 60, ""},
    {"age_trapped", "EAJTM", 0, &P::age_out, "EAJTM", 0, ""},
    {"age_with_mac", "EAJtm", with_mac, &P::age_out, "EAJtm", 0, "[mac]"},
    {"age_unjoined", "EAjtM", 0, &P::age_out, "EAjtM", 0, ""},
    {"age_manual", "EaJtM", 0, &P::age_out, "EaJtM", 0, ""},
    {"age_disabled", "eAJtM", 0, &P::age_out, "eAJtM", 0, ""},

    // Walks over all ports.
    {"oui_joined", "EAJtm", with_mac, &P::add_oui, "EAJTm", 60, "trap+ [mac]"},
    {"oui_waiting", "EAjTM", 0, &P::add_oui, "EAjTM", 60, "trap+"},
    {"oui_manual", "EaJTM", 0, &P::add_oui, "EaJtM", 60, "trap- cos+ mvlan+"},
    {"oui_disabled", "eAJtM", 0, &P::add_oui, "eAJtM", 60, ""},
    {"oui_while_off", "EAJtM", off, &P::add_oui, "EAJtM", 60, ""},
    {"secure", "EAjTM", 0, &P::secure, "EAjTM", 60, "sec+"},
    {"secure_without_acls", "EaJtM", no_acls, &P::secure, "EaJtM", 60, "sec+"},
    {"secure_disabled", "eAjTM", 0, &P::secure, "eAjTM", 60, ""},
    {"secure_while_off", "EAjTM", off, &P::secure, "EAjTM", 60, ""},
    {"switch_on", "EAJtM", off, &P::switch_on, "EAJTM", 60, "cos- mvlan- trap+ sec+ rescan"},
    {"switch_on_manual", "EaJTM", off | no_acls, &P::switch_on, "EaJtM", 60, "trap- cos+ mvlan+ sec+"},
    {"switch_off_joined", "EAJtm", with_mac | recovered, &P::switch_off, "EAjtm", 60, "cos- mvlan- sec- auto- join-"},
    {"switch_off_trapped", "EAJTM", 0, &P::switch_off, "EAjtM", 60, "trap- cos- mvlan- sec- auto- join-"},
    {"switch_off_waiting", "EAjTm", with_mac, &P::switch_off, "EAjtm", 60, "trap- cos- mvlan- sec-"},
    {"switch_off_without_acls", "EAjTM", no_acls, &P::switch_off, "EAjtM", 60, "trap-"},
    {"switch_off_manual", "EaJTm", with_mac, &P::switch_off, "EaJTm", 60, "cos- mvlan- sec-"},
};

class PortStateTable : public PortState, public testing::WithParamInterface<Row>
{
};

TEST_P(PortStateTable, Row)
{
    const Row &row = GetParam();
    given(row.before, row.conditions);
    (this->*row.event)();
    EXPECT_EQ(bits(5), row.after);
    EXPECT_EQ(effects(), row.effects);
    if (port(5) != nullptr) {
        EXPECT_EQ(port(5)->no_flw, row.no_flw);
        EXPECT_EQ(port(5)->phyid, 261u);
    } else {
        EXPECT_EQ(MODULE(udp_vvlan_mac_hash_size)(), 0u) << "MACs of a port that is gone";
    }
}

INSTANTIATE_TEST_SUITE_P(Port, PortStateTable, testing::ValuesIn(rows),
                         [](const testing::TestParamInfo<Row> &row) { return std::string(row.param.name); });

// The same with one call that fails with -5, or gets no object.
TEST_F(PortState, FailedStepKeepsTheBitsAndEndsWhereItShould)
{
    const struct {
        const char *failing;
        const char *before;
        void (PortState::*event)();
        const char *after;
        const char *effects;
        const char *error; // last error line
    } failures[] = {
        {"set 8 u_bridge.vvlan_port", "EAJtM", &P::set_automatic, "EAJTM", "cos- mvlan- trap+ report rescan",
         "Assert:set trap_cpu acl fail"},
        {"apply_alloc vvlan_secu_deny", "EAJtM", &P::set_automatic, "EAJTM", "cos- mvlan- trap+ report rescan",
         "Assert:udp_vvlan_apply_sec_acl fail"},
        {"apply_alloc vvlan_secu_pas", "EaJTM", &P::set_manual, "EaJtM", "trap- mvlan+ report",
         "Assert:set trap_cpu acl fail"},
        {"set 8 u_bridge.vvlan_join", "EAjTM", &P::notify, "EAJtM", "join+ auto+ trap- cos+ mvlan+ [entry]", ""},
        {"set 4", "EAjTM", &P::notify, "EAJtM", "join+ auto+ [entry]", ""},
        {"del 8 u_bridge.vvlan_port", "EAjTM", &P::notify, "EAJtM", "join+ auto+ trap- [entry]",
         "Assert:port(ifx: 5) set(add: 0) vvlan(100) fail."},
        {"apply_alloc vvlan_secu_pas", "EAjTM", &P::notify, "EAJtM", "join+ auto+ trap- [entry]",
         "Assert:apply cos fail"},
        {"apply_alloc mac_vlan", "EAjTM", &P::notify, "EAJtM", "join+ auto+ trap- cos+ [entry]",
         "Assert:apply mvlan fail"},
        {"del 8 u_bridge.vvlan_port", "EAjTm", &P::remove, "EAjtm", "trap- cos- mvlan- sec- [mac]",
         "Assert:set vvlan en del fail!"},
        {"del 8 u_bridge.vvlan_port", "EAjTm", &P::disable_automatic, "eAjtm", "trap- cos- mvlan- sec- [mac]",
         "Assert:config port(ifx:5) fail!"},
        {"del 4", "EAjtm", &P::disable_automatic, "eAjTm", "cos- mvlan- sec- join- auto- [mac]",
         "Assert:config port(ifx:5) fail!"},
        {"del 4", "EAJtM", &P::age_out, "EAjTM", "join- auto- trap+", ""},
    };
    for (const auto &row : failures) {
        SCOPED_TRACE(std::string(row.failing) + " for " + row.before);
        MODULE(udp_vvlan_del_recover_entry)(5);
        if (port(5) != nullptr) {
            MODULE(udp_vvlan_port_clear_mac)(port(5), 0);
        }
        given(row.before, with_mac * (row.before[4] == 'm'));
        platform().fail(row.failing, -5);
        (this->*row.event)();
        EXPECT_EQ(bits(5), row.after);
        EXPECT_EQ(effects(), row.effects);
        const std::string errors = logs("error");
        const size_t last = errors.rfind("error ");
        EXPECT_EQ(last == std::string::npos ? "" : errors.substr(last + 6), row.error);
    }
}

TEST_F(PortState, PhysicalIdIsLookedUpOnce)
{
    platform().fail("ddm.phyid_of 5", -7);
    calls();
    EXPECT_EQ(set_port(5, 1, 1), -7);
    EXPECT_EQ(bits(5), "EAJtM") << "kept, but not applied";
    EXPECT_EQ(set_port(5, 1, 1), 0);
    EXPECT_EQ(calls({"ddm."}), "ddm.phyid_of 5");
}

TEST_F(PortState, WalkStopsAtTheFirstPortThatFails)
{
    given("EAJtM"); // beside port 6, which counts as joined too
    platform().fail("set 8 u_bridge.vvlan_port_cfg", -5);
    add_oui();
    EXPECT_EQ(calls({"set 8 u_bridge.vvlan_port_cfg"}).find('\n'), std::string::npos);
    platform().fail("del 4", -5);
    switch_off();
    EXPECT_EQ(calls({"del 4"}).find('\n'), std::string::npos);
}

TEST_F(PortState, PortWithoutBothVoiceAclsHasNeitherBoundNorATrap)
{
    given("EAJtM");
    cfg().mvlan_acl.created = 0;
    EXPECT_EQ(MODULE(udp_vvlan_port_cfg_sec)(port(5), nullptr), 0);
    EXPECT_CALLS("");
    EXPECT_EQ(MODULE(udp_vvlan_port_unaply_acl)(port(5)), 0);
    EXPECT_CALLS("unbind 100 261");
}

TEST_F(PortState, WalksWithoutARecordAreAnsweredWithTheirCode)
{
    for (const char *walk :
         {"udp_vvlan_port_cfg", "udp_vvlan_port_mac", "udp_vvlan_port_remove_vvlan", "udp_vvlan_port_cfg_sec",
          "udp_vvlan_port_set_sec", "udp_vvlan_timer_ops", "udp_vvlan_port_clear_mac", "udp_vvlan_del_oui_mac"}) {
        EXPECT_EQ((*symbol<decltype(udp_vvlan_port_cfg)>(walk))(nullptr, nullptr), 4) << walk;
        EXPECT_LOGS("error", "error pointer NULL!") << walk;
    }
    vvlan_mac_t record = {};
    EXPECT_EQ(MODULE(udp_vvlan_del_oui_mac)(&record, nullptr), 4);
}

TEST_F(PortState, TimerRearmsItselfAndPortLeavesAtTheScanThatReachesTheAgingTime)
{
    for (const uint16_t age_time : {0, 1, 3, 1440}) {
        given("EAJtM");
        port(5)->no_flw = 0;
        cfg().age_time = age_time;
        uint32_t scans = 0;
        for (; bits(5) == "EAJtM" && scans < 2000; scans++) {
            age();
            EXPECT_EQ(calls({"timer"}), "timer 60.0s udp_vvlan");
        }
        EXPECT_EQ(scans, std::max<uint32_t>(age_time, 1));
        EXPECT_EQ(bits(5), "EAjTM");
    }
    given("EAJtM", off);
    age();
    EXPECT_CALLS("timer 60.0s udp_vvlan");
}

} // namespace
} // namespace vvl::test
