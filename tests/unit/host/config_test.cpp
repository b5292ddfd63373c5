// The configuration file: what a good one means, and the one line that each
// kind of fault is reported by.
#include "platform/host/config.h"
#include "tests/scenario/temp_folder.h"

#include <gtest/gtest.h>

using namespace vvl;
using namespace vvl::host;

namespace
{

TEST(Config, a_good_file_is_read_with_defaults_and_paths_from_its_own_folder)
{
    const char *text = "# a switch\n"
                       "\n"
                       "[host]\n"
                       "module = lib/libudp_vvlan.so   # beside this file\n"
                       "log-level=debug\r\n"
                       "log-file = /var/log/vv#1.log\n"
                       "startup = startup.vv\n"
                       "[ store ]\n"
                       "kind = local\n"
                       "[plane]\n"
                       "kind = ebpf\n"
                       "pin-folder = pins\n"
                       "[port 0x10]\n"
                       "\tphyid = 0x101\n"
                       "interface = ethernet-of-15b\n"
                       "[port 7]\n"
                       "interface = eth1\n"
                       "role = uplink\n"
                       "phyid = 4294967295\n"
                       "pvid = 4094";
    HostConfig config;
    std::string why;
    ASSERT_TRUE(parse_config(text, "/etc/vv/vvland.conf", config, why)) << why;
    EXPECT_EQ(config.network.module, "/etc/vv/lib/libudp_vvlan.so");
    EXPECT_EQ(config.log_file, "/var/log/vv#1.log");
    EXPECT_EQ(config.startup, "/etc/vv/startup.vv");
    EXPECT_EQ(config.log_level, LogLevel::debug);
    EXPECT_EQ(config.plane, PlaneKind::ebpf);
    EXPECT_EQ(config.ebpf.pin_folder, "/etc/vv/pins");
    ASSERT_EQ(config.network.ports.size(), 2u);
    const SwitchPort &access = config.network.ports[0];
    EXPECT_EQ(std::tie(access.ifx, access.phyid, access.pvid, access.uplink, access.interface),
              std::make_tuple(16u, 257u, 1, false, "ethernet-of-15b"));
    const SwitchPort &uplink = config.network.ports[1];
    EXPECT_EQ(std::tie(uplink.ifx, uplink.phyid, uplink.pvid, uplink.uplink, uplink.interface),
              std::make_tuple(7u, UINT32_MAX, 4094, true, "eth1"));
}

struct Fault {
    std::string text;
    const char *reason; // what follows "f.conf:"
};

const Fault faults[] = {
    // lines
    {"[store]\nkind = local\n", "2: the file has no section '[host]'"},
    {"module = m\n[host]\n", "1: 'module' comes before the first section"},
    {"[host\n", "1: a section line must end in ']'"},
    {"[host]\nmodule m\n", "2: expected '[section]' or 'key = value'"},
    {"[host]\nmodule = a\001b\n", "2: the line has a control character"},
    {"[host]\n" + std::string(4097, '#'), "2: the line is longer than 4096 bytes"},
    // sections
    {"[host 1]\n", "1: unknown section '[host 1]'"},
    {"[host]\nmodule = m\n\n[host]\n", "4: section '[host]' is already in line 1"},
    {"[port 5]\nphyid = 1\n[port 0x5]\nphyid = 2\n", "3: section '[port 5]' is already in line 1"},
    {"[port]\n", "1: [port N]: N must be a number from 1 to 2147483647"},
    {"[port 2147483648]\n", "1: [port N]: N must be a number from 1 to 2147483647"},
    // keys; a section that lacks one is named where it began
    {"[host]\nmodule = m\n[port 3]\npvid = 2\n", "3: section '[port 3]' lacks 'phyid'"},
    {"[host]\nmodules = m\n", "2: unknown key 'modules' in '[host]'"},
    {"[host]\n= m\n", "2: unknown key '' in '[host]'"},
    {"[host]\nmodule = m\nmodule = m\n", "3: 'module' is already in this section"},
    {"[host]\nmodule =  # none\n", "2: 'module' has no value"},
    // values
    {"[host]\nlog-level = loud\n", "2: 'log-level' must be debug, info, warn or error, not 'loud'"},
    {"[store]\nkind = Local\n", "2: 'kind' must be local or redis, not 'Local'"},
    {"[port 1]\ninterface = ethernet-of-16-b\n",
     "2: 'interface' must be 1 to 15 bytes without '/', ':' or blanks, not 'ethernet-of-16-b'"},
    {"[port 1]\ninterface = a b\n", "2: 'interface' must be 1 to 15 bytes without '/', ':' or blanks, not 'a b'"},
    {"[port 1]\ninterface = ../eth1\n",
     "2: 'interface' must be 1 to 15 bytes without '/', ':' or blanks, not '../eth1'"},
    {"[port 1]\nphyid = 1\ninterface = eth1\n[port 2]\ninterface = eth1\n",
     "5: 'interface' already belongs to [port 1], not 'eth1'"},
    // the plane may be chosen behind the ports
    {"[host]\n[port 1]\nphyid = 1\ninterface = eth1\n[port 2]\nphyid = 2\n[plane]\nkind = ebpf\n",
     "5: section '[port 2]' lacks 'interface', which the ebpf plane needs"},
    {"[port 1]\npvid = 4095\n", "2: 'pvid' must be a number from 1 to 4094, not '4095'"},
    {"[port 1]\nphyid = 4294967296\n", "2: 'phyid' must be a number from 0 to 4294967295, not '4294967296'"},
    {"[port 1]\nphyid = 9\n[port 2]\nphyid = 0x9\n", "4: 'phyid' already belongs to [port 1], not '0x9'"},
};

TEST(Config, each_fault_is_one_line_and_leaves_the_record_alone)
{
    for (const Fault &fault : faults) {
        HostConfig config;
        config.log_file = "as it was";
        std::string why;
        EXPECT_FALSE(parse_config(fault.text, "f.conf", config, why)) << fault.text;
        EXPECT_EQ(why, "f.conf:" + std::string(fault.reason)) << fault.text;
        EXPECT_EQ(config.log_file, "as it was");
        EXPECT_TRUE(config.network.ports.empty());
    }
}

TEST(Config, the_limit_of_ports_is_kept)
{
    std::string text = "[host]\nmodule = m\n";
    for (size_t i = 1; i <= port_count_max; i++) {
        text += "[port " + std::to_string(i) + "]\nphyid = " + std::to_string(i) + "\n";
    }
    HostConfig config;
    std::string why;
    EXPECT_TRUE(parse_config(text, "f.conf", config, why)) << why;
    EXPECT_FALSE(parse_config(text + "[port 9999]\nphyid = 9999\n", "f.conf", config, why));
    EXPECT_EQ(why, "f.conf:8195: more than 4096 ports");
}

TEST(Config, a_file_that_cannot_be_read_is_named_with_the_reason)
{
    const TempFolder folder;
    const std::string large = folder.write("large.conf", std::string(config_size_max + 1, '\n'));
    const std::pair<std::string, std::string> rows[] = {{folder.path("none"), ": No such file or directory"},
                                                        {folder.path(""), ": Is a directory"},
                                                        {large, ": larger than 1048576 bytes"}};
    for (const auto &[path, reason] : rows) {
        HostConfig config;
        std::string why;
        EXPECT_FALSE(read_config(path, config, why));
        EXPECT_EQ(why, path + reason);
    }
}

} // namespace
