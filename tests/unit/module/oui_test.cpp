// The OUI table: identity, matching order, ACE ids, and what adding and
// deleting an OUI does.
#include "tests/unit/module/module_test.h"

#include <cstring>

namespace vvl::test
{
namespace
{

const std::string record_phone = "u_bridge.vvlan_oui_cfg{index{ace_id:1} oui{mac{data:021122000000} "
                                 "mask{data:ffffff000000}}}";

class Oui : public ModuleTest
{
  protected:
    Oui() { start(); }

    // The ACE id of an OUI; 0: there is none.
    uint32_t ace_id(const std::string &mac, const std::string &mask)
    {
        const vvlan_oui_t *node = MODULE(udp_vvlan_oui_find_node)(bytes(mac).data(), bytes(mask).data());
        return node != nullptr ? node->ace_id : 0;
    }
    // The mask of the OUI that a learned MAC matches.
    std::string match(const std::string &mac)
    {
        const vvlan_oui_t *node = MODULE(udp_vvlan_oui_find_mac)(bytes(mac).data());
        return node != nullptr ? to_hex(node->mask, sizeof node->mask) : "none";
    }

    static std::string numbered(uint8_t i) { return to_hex(&i, 1) + "0000000000"; }
    static std::vector<uint8_t> bytes(const std::string &hex)
    {
        const Message mac = to_message(p_libpub__mac__descriptor, "{data:" + hex + "}");
        const ProtobufCBinaryData &data = reinterpret_cast<const PLibpub__Mac *>(mac.get())->data;
        return {data.data, data.data + data.len};
    }
};

TEST_F(Oui, AddingAndDeletingProgramTheAcesAndTheRecord)
{
    EXPECT_EQ(set_oui(oui_phone, mask24), 0);
    EXPECT_CALLS("set 8 " + record_phone +
                 " / acl_set 101 vvlan_secu_pas_app / "
                 "ace_set 101 1 if:src_mac=021122000000ffffff000000 if:vid=0000ffff do:cos=060000000000 "
                 "do:ipv4_dscp=2e0000000000 do:prio_in=060000000000 / acl_set 102 mac_vlan_app / "
                 "ace_set 102 1 if:src_mac=021122000000ffffff000000 if:vlan_form=0003 do:add_tag=00000000");
    EXPECT_EQ(set_oui(oui_phone, mask24), 0);
    EXPECT_CALLS("") << "a repetition changes nothing";
    set_oui("aabbcc000000", mask24);
    calls();
    EXPECT_EQ(set_oui(oui_phone, mask24, 0), 0);
    EXPECT_CALLS("ace_del 101 1 / ace_del 102 1 / del 8 " + record_phone) << "the ACLs stay";
    EXPECT_EQ(set_oui(oui_phone, mask24, 0), -7);
    EXPECT_EQ(ace_id("aabbcc000000", mask24), 2u);
    set_oui("0000aa000000", mask24);
    EXPECT_EQ(ace_id("0000aa000000", mask24), 1u) << "the id is free again";
}

TEST_F(Oui, TwentyFourBitsWinThenTheFullAddressThenTheLongestPrefix)
{
    const std::string mac = "021122334455";
    const char *const worst_first[][2] = {{"000000000000", "800000000000"},
                                          {"020000000000", "ff0000000000"},
                                          {oui_phone, "fffffe000000"},
                                          {"021122330000", "ffffffff0000"},
                                          {"021122334454", "fffffffffffe"},
                                          {"021122334455", "ffffffffffff"},
                                          {oui_phone, mask24}};
    EXPECT_EQ(match(mac), "none");
    for (const auto &[oui, mask] : worst_first) {
        set_oui(oui, mask);
        EXPECT_EQ(match(mac), mask);
    }
    for (size_t i = std::size(worst_first) - 1; i > 0; i--) {
        set_oui(worst_first[i][0], worst_first[i][1], 0);
        EXPECT_EQ(match(mac), worst_first[i - 1][1]) << "after a deletion";
    }
    MODULE(udp_vvlan_oui_release)();
    EXPECT_EQ(match(mac), "none");
}

TEST_F(Oui, OnlyPrefixesMatchAndOnlyUpToTheirLastBit)
{
    for (const auto &[mac, mask] : {std::pair{oui_phone, mask24},
                                    {"a0b000000000", "fff000000000"},
                                    {"450022000000", "ff00ff000000"},
                                    {"451122000001", "ffffff000000"},
                                    {"000000000000", "000000000000"}}) {
        EXPECT_EQ(set_oui(mac, mask), 0);
    }
    for (const char *neighbour : {"021123000000", "021022000000", "821122000000", "a0a000000000", "a0c000000000",
                                  "450022000000", "451122000001", "000000000000"}) {
        EXPECT_EQ(match(neighbour), "none") << neighbour;
    }
    EXPECT_EQ(match("021122ffffff"), mask24);
    EXPECT_EQ(match("a0bfffffffff"), "fff000000000");
}

TEST_F(Oui, ExhaustedAceIdsRefuseTheOui)
{
    for (uint8_t i = 1; i <= 127; i++) {
        ASSERT_EQ(set_oui(numbered(i), mask24), 0);
        ASSERT_EQ(ace_id(numbered(i), mask24), i);
    }
    calls();
    for (int again = 0; again < 2; again++) {
        EXPECT_EQ(set_oui(oui_phone, mask24), -11);
        EXPECT_CALLS("set 4 p_bridge.vvlan_err_event{msg_type:2 oui{mac{data:021122000000} mask{data:ffffff000000}}}");
        EXPECT_EQ(ace_id(oui_phone, mask24), 0u);
        EXPECT_EQ(match(oui_phone), "none");
    }
    for (const int id : {-1, 128, 128 + 8, INT32_MIN, INT32_MAX}) {
        MODULE(udp_vvlan_free_ace_id)(id);
        EXPECT_EQ(MODULE(udp_vvlan_alloc_ace_id)(), 0u) << id;
    }
    set_oui(numbered(77), mask24, 0);
    EXPECT_EQ(set_oui(oui_phone, mask24), 0);
    EXPECT_EQ(ace_id(oui_phone, mask24), 77u);
}

TEST_F(Oui, FailedStepKeepsTheOui)
{
    voice_vlan(100);
    set_port(6, 1, 1);
    const struct {
        RecordingPlatform::Fault fault;
        const char *logged;
        bool reported;
    } rows[] = {
        {{"ace_alloc 1", 1, 0, 1},
         "warn add cos_ace fail ! / warn add mvlan_ace fail ! / warn add oui node fail !",
         true},
        {{"ace_alloc 1", 1, 1, 1}, "warn add mvlan_ace fail ! / warn add oui node fail !", true},
        {{"set 8 u_bridge.vvlan_oui", -5}, "", false},
    };
    for (const auto &row : rows) {
        forget();
        platform().faults = {row.fault};
        EXPECT_EQ(set_oui(oui_phone, mask24), 0);
        EXPECT_EQ(ace_id(oui_phone, mask24), 1u);
        EXPECT_LOGS("warn", row.logged);
        const std::string made = calls({"ace_set", "set 4", "set 8 u_bridge.vvlan_port_cfg"});
        EXPECT_EQ(std::count(made.begin(), made.end(), '\n'), row.reported ? 1 : 2) << "no port is renewed: " << made;
        EXPECT_EQ(made.find("set 4") != std::string::npos, row.reported);
        platform().faults.clear();
        set_oui(oui_phone, mask24, 0);
    }
}

} // namespace
} // namespace vvl::test
