// The log level and its file, the debug commands and what they print.
#include "tests/unit/module/module_test.h"

#include <cstring>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace vvl::test
{
namespace
{

void *number(uintptr_t value)
{
    return reinterpret_cast<void *>(value);
}

class Debug : public ModuleTest
{
  protected:
    template <typename... Args> std::string printed(const char *command, Args... args)
    {
        testing::internal::CaptureStdout();
        reinterpret_cast<void (*)(Args...)>(platform().commands.at(command))(args...);
        fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }
    void register_commands() { MODULE(udp_vvlan_at_init)(nullptr, number(1), nullptr, nullptr); }
};

TEST_F(Debug, LevelFileSetsTheLevel)
{
    const struct {
        const char *text;
        uint32_t level;
    } rows[] = {{nullptr, 1}, {"", 1},   {"4", 4},   {"0x4", 4},        {"0X4\n", 4},
                {"9", 5},     {"-1", 5}, {"abc", 0}, {" +3 x", 3},      {"0", 0},
                {"0x", 0},    {"08", 5}, {"2.9", 2}, {"4294967297", 5}, {"                   35", 3}};
    for (const auto &row : rows) {
        char path[] = "/tmp/vvlan.XXXXXX"; // fits into the module's own name
        close(mkstemp(path));
        if (row.text != nullptr) {
            std::ofstream(path) << row.text;
        } else {
            unlink(path);
        }
        strcpy(symbol<char>("g_vvlan_level_file"), path);
        MODULE(g_vvlan_zlog_level) = 1;
        EXPECT_EQ(MODULE(udp_vvlan_zlog_init)(), 0);
        unlink(path);
        EXPECT_EQ(MODULE(g_vvlan_zlog_level), row.level) << (row.text != nullptr ? row.text : "no file");
    }
    char fifo[] = "/tmp/vvlan.XXXXXX"; // nobody writes to it
    close(mkstemp(fifo));
    unlink(fifo);
    ASSERT_EQ(mkfifo(fifo, 0600), 0);
    for (const char *path : {static_cast<const char *>(fifo), "/dev/zero", "/tmp"}) {
        strcpy(symbol<char>("g_vvlan_level_file"), path);
        MODULE(g_vvlan_zlog_level) = 1;
        EXPECT_EQ(MODULE(udp_vvlan_zlog_init)(), 0);
        EXPECT_EQ(MODULE(g_vvlan_zlog_level), 1u) << path;
    }
    unlink(fifo);
}

TEST_F(Debug, EachLevelLetsItsMessagesThrough)
{
    start();
    const size_t line_counts[] = {0, 1, 2, 2, 3, 4};
    for (uint32_t level = 0; level <= 5; level++) {
        MODULE(g_vvlan_zlog_level) = level;
        MODULE(udp_vvlan_global_init)(nullptr);          // error
        platform().disconnect_cb(&platform().global, 4); // warn, then info
        MODULE(udp_vvlan_recover_db_clear)();            // debug
        EXPECT_EQ(platform().logs.size(), line_counts[level]) << level;
        logs();
    }
}

TEST_F(Debug, HostWithoutALogIsReportedAndNothingWritten)
{
    platform().fail("zlog.init", 1);
    testing::internal::CaptureStdout();
    EXPECT_EQ(MODULE(udp_vvlan_zlog_init)(), -17);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "<init> init zlog failed.\n");
    MODULE(udp_vvlan_global_init)(nullptr);
    EXPECT_LOGS("", "");
    EXPECT_CALLS("zlog.init vvlan");
}

TEST_F(Debug, CommandsAreRegisteredInOrder)
{
    platform().faults = {{"dump_recover_entry", 7}, {"dump_all_oui", 9}};
    EXPECT_EQ(MODULE(udp_vvlan_at_init)(number(1), number(2), number(3), number(4)), 7) << "the last one's result";
    EXPECT_CALLS("ssat.init user=1 user=2 user=3 user=4 / show-zlog-level|void  :show current log level user=2 / "
                 "set-zlog-level|level=%d  user=2 / dump_glbal_configure|void  :dump_glbal configure user=2 / "
                 "dump_all_oui|void  : user=2 / dump_all_port|void  : user=2 / dump_port_mac|ifx=%d  : user=2 / "
                 "dump_all_mac|void  : user=2 / dump_recover_entry|void  : user=2");
    platform().fail("ssat.init", -4);
    EXPECT_EQ(MODULE(udp_vvlan_at_init)(number(1), nullptr, nullptr, nullptr), -4);
    EXPECT_CALLS("ssat.init user=1");
}

TEST_F(Debug, LevelCommands)
{
    register_commands();
    const char *const names[] = {"FATAL", "ERROR", "WARN", "NOTICE", "INFO", "DEBUG"};
    for (const auto &[level, kept] : {std::pair{0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {5, 5}, {7, 5}, {-1, 5}}) {
        EXPECT_EQ(printed("set-zlog-level", level), "set zlog_level=" + std::to_string(kept) + " success !\n");
        EXPECT_EQ(printed("show-zlog-level"), std::string(" TQDF_ZLOG_LV_") + names[kept] + " \n");
    }
    MODULE(g_vvlan_zlog_level) = 6;
    EXPECT_EQ(printed("show-zlog-level"), " can't Distinguish !\n");
}

TEST_F(Debug, DumpsOfSettingsOuisMacsAndRecoveryEntries)
{
    start();
    register_commands();
    const auto settings = [](const char *status, const char *vid, const char *mode) {
        return std::string("\n\n  Voice VLAN status        : ") + status + "\n  Voice VLAN ID            : " + vid +
               "\n  Voice VLAN security mode : " + mode +
               "\n  Voice VLAN aging time    : 1440 minutes\n  Voice VLAN cos           : 6\n"
               "  Voice VLAN dscp          : 46\n";
    };
    EXPECT_EQ(printed("dump_glbal_configure"), settings("DISABLE", "0", "Normal"));
    voice_vlan(100);
    cfg().secu_mode = 1;
    EXPECT_EQ(printed("dump_glbal_configure"), settings("ENABLE", "100", "Security"));
    for (const char *mac : {"0F0000000000", "0A0000000001", "001122FF0000", "0A0000000002"}) {
        set_oui(mac, mask24); // buckets 15, 10, 3, 10
    }
    EXPECT_EQ(printed("dump_all_oui"), "\n\n"
                                       "  <01> mac:0011.22FF.0000      mask:FFFF.FF00.0000\n"
                                       "  <02> mac:0A00.0000.0001      mask:FFFF.FF00.0000\n"
                                       "  <03> mac:0A00.0000.0002      mask:FFFF.FF00.0000\n"
                                       "  <04> mac:0F00.0000.0000      mask:FFFF.FF00.0000\n");
    set_port(5, 1, 1);
    set_port(6, 1, 1);
    const std::string ports = printed("dump_all_port");
    EXPECT_EQ(std::count(ports.begin(), ports.end(), '\n'), 6) << ports;
    set_mac("0F0000000001", 5);
    set_mac("0F00000000FE", 5);
    EXPECT_EQ(printed("dump_port_mac", 5), "\n\n  <00001> mac: 0F00.0000.0001 \n  <00002> mac: 0F00.0000.00FE \n");
    EXPECT_EQ(printed("dump_port_mac", 7), "\n\nNot Found The Port by ifx=7");
    set_mac("0F00000000FE", 5, 0);
    for (int again = 0; again < 2; again++) { // numbered from 1 each time
        EXPECT_EQ(printed("dump_all_mac"), "\n\n  <00001> mac: 0F00.0000.0001    vid:100    ifx:5\n");
    }
    EXPECT_EQ(printed("dump_recover_entry"), "");
    MODULE(udp_vvlan_add_recover_entry)(9);
    EXPECT_EQ(printed("dump_recover_entry"), "ifx = 9\n");
}

TEST_F(Debug, DumpOfPortsWithTheirBits)
{
    prepare();
    register_commands();
    port(5)->no_flw = 120;
    const struct {
        const char *bits;
        uint8_t secu;
        const char *mode, *status, *end;
    } rows[] = {
        {"EAjTM", 0, "AUTO  ", " ENABLE", " TRAP  !SECU   AGING   1440(minute)        1  UNJOIN    "},
        {"EAJtm", 1, "AUTO  ", " ENABLE", "!TRAP   SECU  !AGING   1440(minute)        0  JOINED    "},
        {"eAJTm", 0, "AUTO  ", "DISABLE", "       !SECU  !AGING   1440(minute)        1            "},
        {"EajTM", 0, "MANUAL", " ENABLE", "       !SECU   AGING   1440(minute)        1  JOINED    "},
        {"eaJtM", 0, "MANUAL", "DISABLE", "       !SECU   AGING   1440(minute)        0            "},
    };
    for (const auto &row : rows) {
        set_bits(5, row.bits);
        cfg().secu_mode = row.secu;
        EXPECT_EQ(
            printed("dump_all_port"),
            std::string("\n\n    PORT          MODE    PHYID         STATUS    NO_FLW_CNT    trap   secu   mac_aged"
                        "   age_time    deny_en  auto_join   vvlan\n"
                        "    ------------- ------- ------------- --------- -----------   -----  -----  --------"
                        "   --------    -------  ---------  -----\n    ifx:   5      ") +
                row.mode + "  0x105     " + row.status + "   00000120(s)   " + row.end + " 100 \n");
    }
}

} // namespace
} // namespace vvl::test
