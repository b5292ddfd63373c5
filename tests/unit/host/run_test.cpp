// The daemon from its configuration file to its end. The module of these tests
// sends SIGTERM to the process from its first timer, so a run ends by itself.
#include "platform/host/run.h"

#include "platform/base/exit.h"
#include "tests/scenario/temp_folder.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <thread>

#include <unistd.h>

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
                                        ".so\nlog-file = log\nstartup = startup.vv\n[port 1]\nphyid = 257\n" + store);
        testing::internal::CaptureStderr();
        testing::internal::CaptureStdout();
        code = command(file("vvland.conf"));
        testing::internal::GetCapturedStdout();
        return testing::internal::GetCapturedStderr();
    }

    std::string log() const { return TempFolder::read(file("log")); }
    std::string file(const std::string &name) const { return folder.path(name); }

    TempFolder folder;
    std::string store; // the section of the configuration
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

// Waits until the file has the text, 10 s at most.
bool wait_for(const std::string &file, const std::string &text)
{
    for (int i = 0; i < 1000 && TempFolder::read(file).find(text) == std::string::npos; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return TempFolder::read(file).find(text) != std::string::npos;
}

TEST_F(RunTest, a_hang_up_opens_the_log_again_at_the_files_level_and_ends_nothing)
{
    std::thread operator_thread([&] {
        EXPECT_TRUE(wait_for(file("log"), "running"));
        std::filesystem::rename(file("log"), file("log.1"));
        folder.write("vvland.conf", "[host]\nlog-level = debug\nlog-file = log\n");
        ::kill(getpid(), SIGHUP);
        EXPECT_TRUE(wait_for(file("log"), "log opened again"));
        folder.write("vvland.conf", "[nothing]\n");
        ::kill(getpid(), SIGHUP);
        EXPECT_TRUE(wait_for(file("log"), "unknown section '[nothing]'; the configuration stays as it is"));
        ::kill(getpid(), SIGTERM);
    });
    run(run_file, "module_good", "");
    operator_thread.join();
    EXPECT_EQ(code, exit_good);
    EXPECT_TRUE(wait_for(file("log"), "stopping"));
}

TEST_F(RunTest, a_store_server_that_is_not_up_yet_is_waited_for)
{
    store = "[store]\nkind = redis\naddress = unix:" + file("redis.sock") + "\n";
    std::thread operator_thread([&] {
        EXPECT_TRUE(wait_for(file("log"), "waiting for the store: 4 databases are missing"));
        ::kill(getpid(), SIGTERM);
    });
    run(run_file, "module_good", "");
    operator_thread.join();
    EXPECT_EQ(code, exit_good);
    EXPECT_EQ(log().find("running"), std::string::npos) << log();
}

TEST_F(RunTest, a_check_refuses_what_a_run_would_fail_with)
{
    folder.write("login", "secret");
    std::filesystem::permissions(file("login"), std::filesystem::perms(0644));
    const std::string redis = "[store]\nkind = redis\naddress = ";
    const struct {
        const char *module;
        std::string store;
        const char *startup;
        const char *reason;
    } rows[] = {{"no_such_module", "", "", "cannot open shared object file"},
                {"module_without_hook", "", "", "it has no function udp_vvlan_rdnd_aware_callback"},
                {"module_good", redis + "tcp:1\n", "", "not redis://HOST:PORT"},
                {"module_good", redis + "unix:/x\nprefix = a b\n", "", "prefix"},
                {"module_good", redis + "unix:/x\ncredentials = login\n", "", "everybody can read it"},
                {"module_good", "", "vlan 100 on\nvlan 200 off\n",
                 "startup.vv:2: voice VLAN 200 is not on; voice VLAN 100 is"}};
    for (const auto &row : rows) {
        store = row.store;
        for (auto *command : {run_file, check_config}) {
            std::string said = run(command, row.module, row.startup);
            EXPECT_NE(code, exit_good) << row.reason;
            said += command == run_file ? log() : "";
            EXPECT_NE(said.find(row.reason), std::string::npos) << said;
        }
    }
    folder.write("vvland.conf", "[host]\n");
    EXPECT_EQ(check_config(file("vvland.conf")), exit_refused);
}

} // namespace
