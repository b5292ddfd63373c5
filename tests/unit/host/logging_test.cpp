// The log's levels, categories and forms, through the calls that write to it.
#include "platform/host/logging.h"

#include "platform/host/services.h"
#include "tests/scenario/temp_folder.h"
#include "tq_zlog.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <regex>

using namespace vvl;
using namespace vvl::host;

namespace
{

void write_lines()
{
    void *category = tq_zlog_init("vvlan");
    for (int level : {TQ_ZLOG_DEBUG, TQ_ZLOG_INFO, TQ_ZLOG_NOTICE, TQ_ZLOG_WARN, TQ_ZLOG_ERROR, TQ_ZLOG_FATAL}) {
        tqdf_zlog(category, "", 0, "", 0, 1, level, "level {%d}", level); // braces are no placeholders
    }
    log_line(LogLevel::debug, "a detail");
    log_line(LogLevel::error, "a {} fault");
}

TEST(Logging, journal_lines_carry_their_priority_and_category)
{
    std::string why;
    testing::internal::CaptureStderr();
    {
        const auto logging = Logging::open({LogLevel::debug, "", true}, why);
        ASSERT_NE(logging, nullptr) << why;
        write_lines();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "<7>vvlan: level {20}\n"
                                                      "<6>vvlan: level {40}\n"
                                                      "<6>vvlan: level {60}\n"
                                                      "<4>vvlan: level {80}\n"
                                                      "<3>vvlan: level {100}\n"
                                                      "<2>vvlan: level {120}\n"
                                                      "<7>host: a detail\n"
                                                      "<3>host: a {} fault\n");
}

TEST(Logging, a_file_is_appended_to_from_its_level_up_with_time_stamps)
{
    const TempFolder folder;
    const std::string file = folder.path("log");
    std::string why;
    std::string text;
    for (int round = 0; round < 2; round++) {
        const auto logging = Logging::open({LogLevel::warn, file, true}, why);
        ASSERT_NE(logging, nullptr) << why;
        write_lines();
        text = TempFolder::read(file); // while it is open: a process that dies keeps its last faults
    }
    const std::string round = "T warning vvlan: level {80}\n"
                              "T error vvlan: level {100}\n"
                              "T critical vvlan: level {120}\n"
                              "T error host: a {} fault\n";
    const std::regex stamp("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}[+-]\\d\\d:\\d\\d");
    EXPECT_EQ(std::regex_replace(text, stamp, "T"), round + round);
}

TEST(Logging, a_file_that_cannot_be_opened_is_named_and_the_old_sinks_stay)
{
    std::string seen;
    set_log_sink([&](LogLevel, const std::string &text) { seen = text; });
    std::string why;
    EXPECT_EQ(Logging::open({LogLevel::info, "/dev/null/x.log", false}, why), nullptr);
    EXPECT_NE(why.find("/dev/null/x.log"), std::string::npos) << why;
    log_line(LogLevel::info, "still here");
    EXPECT_EQ(seen, "still here");
    set_log_sink({});
}

TEST(Logging, lines_that_cannot_be_written_are_counted_and_the_log_goes_on)
{
    const TempFolder folder;
    std::string why;
    const auto logging = Logging::open({LogLevel::info, "/dev/full", false}, why);
    ASSERT_NE(logging, nullptr) << why;
    log_line(LogLevel::error, "lost");
    flush_zlog();
    log_line(LogLevel::info, "lost too");
    EXPECT_FALSE(logging->reopen({LogLevel::info, folder.path("none/log"), false}, why));
    ASSERT_TRUE(logging->reopen({LogLevel::error, folder.path("log"), false}, why)) << why;
    log_line(LogLevel::info, "below the level");
    log_line(LogLevel::error, "kept");
    const std::string text = TempFolder::read(folder.path("log"));
    EXPECT_NE(text.find("host: 2 log lines were lost: No space left on device\n"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("host: kept\n")) << text;
    EXPECT_EQ(text.find("below"), std::string::npos) << text;
}

TEST(Logging, only_the_stream_that_the_journal_named_counts_as_the_journal)
{
    struct stat status = {};
    ASSERT_EQ(fstat(2, &status), 0);
    for (const unsigned added : {0, 1}) {
        const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino + added);
        setenv("JOURNAL_STREAM", stream.c_str(), 1);
        EXPECT_EQ(journal_is_listening(), added == 0);
    }
    unsetenv("JOURNAL_STREAM");
    EXPECT_FALSE(journal_is_listening());
}

} // namespace
