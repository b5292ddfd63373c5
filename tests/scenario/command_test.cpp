#include "platform/base/file.h"
#include "platform/sim/runner.h"

#include <gtest/gtest.h>

namespace vvl::sim
{
namespace
{

using namespace oper;

constexpr std::pair<const char *, const char *> bad_lines[] = {
    // The first word.
    {"vlam 100 on", "unknown command 'vlam'; did you mean 'vlan'?"},
    // A word further on; every row that got that far has its say.
    {"vlan 100 onn", "'onn' after 'vlan 100': expected on or off; did you mean 'on'?"},
    {"port 1 disable xyz", "'xyz' after 'port 1 disable': expected auto or manual"},
    {"play a.pcap port 1 form 3s",
     "'form' after 'play a.pcap port 1': expected from or background; did you mean 'from'?"},
    // Too few and too many words.
    {"qos cos 6 dscp", "'qos cos 6 dscp' is incomplete: expected DSCP"},
    {"vlan 100 on now", "'now' after 'vlan 100 on': nothing more is expected"},
    // Ranges, one step outside each.
    {"vlan 0 on", "VLAN '0' is not 1 to 4094"},
    {"qos cos 6 dscp 64", "DSCP '64' is not 0 to 63"},
    {"age 65536", "MINUTES '65536' is not 0 to 65535"},
    {"age 99999999999999999999", "MINUTES '99999999999999999999' is not 0 to 65535"},
    {"port 3 auto", "port 3 does not exist"},
    {"store down 5", "DB '5' is not one of 0|4|6|8|all"},
    {"ports 8..1", "range '8..1' ends before it begins"},
    {"ports 8", "'8' is not a range: expected FIRST..LAST"},
    // OUIs.
    {"oui add 00:04:76:00:00:00/49", "OUI 00:04:76:00:00:00/49: prefix length 49 is not 1 to 48"},
    {"oui add 00:04:76:22:00:00/24",
     "OUI 00:04:76:22:00:00/24: the address has bits outside its mask ff:ff:ff:00:00:00"},
    {"oui add 00:04:76:00:00:00/zz", "OUI 00:04:76:00:00:00/zz: 'zz' is neither a prefix length nor a mask"},
    {"oui add 00:00:00:00:00:00/00:00:00:00:00:00",
     "OUI 00:00:00:00:00:00/00:00:00:00:00:00: '00:00:00:00:00:00' is neither a prefix length nor a mask"},
    {"oui add 00:04:76/24",
     "'00:04:76/24' is not an OUI: expected ADDRESS/BITS or ADDRESS/MASK, as in 00:04:76:00:00:00/24"},
    {"oui add ff:ff:ff:ff:ff:ff/48", "OUI ff:ff:ff:ff:ff:ff/48: a group address is no device's"},
    {"oui add 01:04:76:00:00:00/24", "OUI 01:04:76:00:00:00/24: a group address is no device's"},
    {"oui add 00:04:00:00:00:01/ff:ff:00:00:00:ff",
     "OUI 00:04:00:00:00:01/ff:ff:00:00:00:ff: the mask is not a prefix"},
    {"port 24 auto", "port 24 is an uplink, which cannot be a voice port"},
    // Times.
    {"wait 30", "'30' is not a time: expected a number with us, ms, s, m, h or d, as in 30s"},
    {"wait 9223372036854775807d", "time '9223372036854775807d' is more than 10000 days"},
    // Expectations.
    {"expect bound 1 voise", "ACL 'voise' is not one of voice|mac_vlan|security|none"},
    {"expect object p_bridge.vvlan_oui_cfg 00:04:76:00:00:00/50",
     "'00:04:76:00:00:00/50' is not a key of p_bridge.vvlan_oui_cfg"},
    // The line itself.
    {"play \"a.pcap port 1", "the quotation mark is not closed"},
    {"vlan 100\x01 on", "the line holds a control character"},
};

class CommandTest : public testing::Test
{
  protected:
    CommandTest() { grammar.ports = {{1, 2, 24}, {24}}; }

    const Arguments &parse(std::string_view line)
    {
        command = {};
        EXPECT_TRUE(parse_command(grammar, line, command, why)) << line << ": " << why;
        return command.args;
    }

    Grammar grammar = scenario_grammar();
    Command command;
    std::string why;
};

TEST_F(CommandTest, BadLineIsRefusedWithItsReason)
{
    for (const auto &[line, error] : bad_lines) {
        EXPECT_FALSE(parse_command(grammar, line, command, why)) << line;
        EXPECT_EQ(why, error) << line;
        EXPECT_EQ(command.row, nullptr) << line;
    }
    EXPECT_FALSE(parse_command(grammar, "wait 1s" + std::string(input_line_size_max, ' '), command, why));
    EXPECT_EQ(why, "the line is longer than 4096 bytes");
}

TEST_F(CommandTest, RangesIncludeTheirEndsAndTimesAreMicroseconds)
{
    const std::tuple<const char *, const char *, uint64_t> rows[] = {
        {"vlan 1 on", "VLAN", 1},
        {"vlan 4094 off", "VLAN", 4094},
        {"age 0x10", "MINUTES", 16},
        {"qos cos 7 dscp 63", "DSCP", 63},
        {"wait 7us", "TIME", 7},
        {"wait 200ms", "TIME", 200'000},
        {"wait 2h", "TIME", 7'200'000'000},
        {"wait 1d", "TIME", 86'400'000'000},
    };
    for (const auto &[line, name, number] : rows) {
        EXPECT_EQ(parse(line)[name].number, number) << line;
    }
    EXPECT_EQ(parse("ports 5..5")["RANGE"].last, 5u);
}

TEST_F(CommandTest, OuiTakesPrefixLengthOrMask)
{
    const Argument by_length = parse("oui add 00:04:76:00:00:00/24")["OUI"];
    const Argument by_mask = parse("oui add 00-04-76-00-00-00/ff:ff:ff:00:00:00")["OUI"];
    EXPECT_EQ(by_length.mac, (Mac{0x00, 0x04, 0x76}));
    EXPECT_EQ(by_length.mask, by_mask.mask);
    EXPECT_EQ(oui_text(by_mask.mac, by_mask.mask), "00:04:76:00:00:00/24");
    const Argument odd = parse("oui del 00:04:00:00:00:01/ff:ff:00:00:00:ff")["OUI"];
    EXPECT_EQ(oui_text(odd.mac, odd.mask), "00:04:00:00:00:01/ff:ff:00:00:00:ff");
}

TEST_F(CommandTest, OptionalPartsMayBeLeftOutEachByItself)
{
    EXPECT_EQ(parse("play a.pcap port 1").find("TIME"), nullptr);
    EXPECT_EQ(command.args.find("background"), nullptr);
    EXPECT_EQ(parse("play a.pcap port 1 background").find("TIME"), nullptr);
    EXPECT_NE(command.args.find("background"), nullptr);
    EXPECT_EQ(parse("play a.pcap port 1 from 2s background")["TIME"].number, 2'000'000u);
    EXPECT_NE(command.args.find("background"), nullptr);
    EXPECT_EQ(parse("port 2 disable").find("auto|manual"), nullptr);
    EXPECT_EQ(parse("port 2 disable manual")["auto|manual"].text, "manual");
    EXPECT_EQ(parse("expect bound 1 voice security").list().size(), 3u);
}

TEST_F(CommandTest, CommentsAndQuotesAreUnderstood)
{
    parse("   # nothing but this");
    EXPECT_EQ(command.row, nullptr);
    parse("");
    EXPECT_EQ(command.row, nullptr);
    EXPECT_EQ(parse("play \"my call #1.pcap\" port 1 # a comment")["FILE"].text, "my call #1.pcap");
    EXPECT_EQ(parse("\tvlan\t100  on\r")["on|off"].text, "on");
}

} // namespace
} // namespace vvl::sim
