#include "platform/base/number.h"

#include <gtest/gtest.h>

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

} // namespace
