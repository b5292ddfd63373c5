#include "platform/base/file.h"
#include "platform/base/number.h"
#include "tests/scenario/temp_folder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <climits>

using namespace vvl;

namespace
{

TEST(Number, is_read_whole_and_within_its_range)
{
    const std::pair<std::string_view, int64_t> good[] = {{"0", 0},
                                                         {"7", 7},
                                                         {"-1", -1},
                                                         {"010", 10},
                                                         {"0x1f", 31},
                                                         {"0XfF", 255},
                                                         {"-0x10", -16},
                                                         {"2147483647", INT_MAX},
                                                         {"-2147483648", INT_MIN}};
    for (const auto &[text, number] : good) {
        int64_t value = number + 1;
        EXPECT_TRUE(parse_integer(text, INT_MIN, INT_MAX, value)) << text;
        EXPECT_EQ(value, number) << text;
    }
    for (const char *bad : {"", " 1", "1 ", "+1", "1x", "0x", "x1", "--1", "0x-1", "1.0", "2147483648", "-2147483649",
                            "0xffffffff", "18446744073709551615", "99999999999999999999"}) {
        int64_t value = 5;
        EXPECT_FALSE(parse_integer(bad, INT_MIN, INT_MAX, value)) << bad;
        EXPECT_EQ(value, 5) << bad;
    }
}

TEST(InputFile, is_a_regular_file_of_limited_size_without_a_byte_order_mark)
{
    const TempFolder folder;
    const std::string fifo = folder.path("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string mark = ": begins with a byte-order mark; save it as UTF-8 without one";
    const std::pair<std::string, std::string> refused[] = {{folder.path("none"), ": No such file or directory"},
                                                           {folder.path(""), ": Is a directory"},
                                                           {"/dev/zero", ": not a regular file"},
                                                           {fifo, ": not a regular file"},
                                                           {"/proc/self/mem", ": Input/output error"},
                                                           {folder.write("nine", "123456789"), ": larger than 8 bytes"},
                                                           {"/proc/self/maps", ": larger than 8 bytes"}, // of size 0
                                                           {folder.write("utf8", "\xef\xbb\xbfvlan"), mark},
                                                           {folder.write("utf16", "\xff\xfev"), mark}};
    for (const auto &[path, reason] : refused) {
        std::string text = "as it was";
        std::string why;
        EXPECT_FALSE(read_text_file(path, text, why, 8)) << path;
        EXPECT_EQ(why, path + reason);
        EXPECT_EQ(text, "as it was");
    }
    std::string text;
    std::string why;
    EXPECT_TRUE(read_text_file(folder.write("eight", "12345678"), text, why, 8)) << why;
    EXPECT_EQ(text, "12345678");
}

} // namespace
