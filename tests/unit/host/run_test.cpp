// The daemon from its configuration file to its end. The module of these tests
// sends SIGTERM to the process from its first timer, so a run ends by itself.
#include "platform/host/run.h"

#include "platform/base/exit.h"
#include "tests/scenario/temp_folder.h"

#include <gtest/gtest.h>

using namespace vvl;
using namespace vvl::host;

namespace
{

int run_file(const std::string &config_file)
{
    RunOptions options;
    options.config_file = config_file;
    return run_daemon(options);
}

class RunTest : public testing::Test
{
  protected:
    // Writes the files, runs the command on the configuration and returns what
    // it wrote to standard error.
    std::string run(int (*command)(const std::string &), const std::string &module, const std::string &startup)
    {
        folder.write("startup.vv", startup);
        folder.write("vvland.conf", "[host]\nmodule = " MODULE_DIR "/" + module +
                                        ".so\nlog-file = log\nstartup = startup.vv\n[port 1]\nphyid = 257\n");
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        code = command(file("vvland.conf"));
        testing::internal::GetCapturedStdout();
        return testing::internal::GetCapturedStderr();
    }

    std::string log() const { return TempFolder::read(file("log")); }
    std::string file(const std::string &name) const { return folder.path(name); }

    TempFolder folder;
    int code = -1;
};

TEST_F(RunTest, a_signal_ends_a_run_in_good_order)
{
    EXPECT_EQ(run(run_file, "module_ends", "vlan 100 on # the voice VLAN\n\nport 1 auto\n"), "");
    EXPECT_EQ(code, exit_good);
    for (const char *line : {"running, 1 ports", "tick 1", "stopping"}) {
        EXPECT_NE(log().find(line), std::string::npos) << log();
    }
    EXPECT_EQ(log().find("error"), std::string::npos) << log();
}

TEST_F(RunTest, a_fault_in_the_startup_file_stops_everything_before_it_begins)
{
    for (auto *command : {run_file, check_config}) {
        const std::string said = run(command, "module_ends", "vlan 100 on\nport 2 auto\n");
        EXPECT_EQ(code, exit_refused);
        EXPECT_EQ(said.find("vvland: " + file("startup.vv") + ":2: "), 0u) << said;
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
        EXPECT_FALSE(std::filesystem::exists(file("log")));
    }
}

TEST_F(RunTest, a_module_that_cannot_be_loaded_is_logged_and_ends_the_run)
{
    run(run_file, "no_such_module", "");
    EXPECT_EQ(code, exit_failed);
    EXPECT_NE(log().find("no_such_module.so: cannot open shared object file"), std::string::npos) << log();
}

} // namespace
