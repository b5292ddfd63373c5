// at_snprintf against snprintf: the same text, the same result and the same
// cut, for every size of buffer. Each row has an argument behind the conversion
// under test, which is wrong where the one before it was skipped by a wrong
// type. Buffers are exact, so that the address sanitizer finds a byte written
// beyond one.
#include "tq_zlog.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <string>

namespace
{

template <typename... Values> void expect_text(const std::string &text, const char *format, Values... values)
{
    SCOPED_TRACE(format);
    for (size_t size = 0; size <= text.size() + 2; size++) {
        const std::unique_ptr<char[]> buf(new char[size]);
        ASSERT_EQ(at_snprintf(size > 0 ? buf.get() : nullptr, size, format, values...), static_cast<int>(text.size()));
        if (size > 0) {
            ASSERT_EQ(std::string(buf.get()), text.substr(0, size - 1));
        }
    }
}

#define EXPECT_AS_SNPRINTF(...)                                                                                        \
    do {                                                                                                               \
        char text[512];                                                                                                \
        ASSERT_GE(std::snprintf(text, sizeof text, __VA_ARGS__), 0);                                                   \
        expect_text(text, __VA_ARGS__);                                                                                \
    } while (0)

TEST(AtSnprintf, reads_arguments_of_every_type)
{
    int here = 0;
    EXPECT_AS_SNPRINTF("%hhd %hd %d %#x|%s", -129, 70000, INT_MIN, UINT_MAX, "next");
    EXPECT_AS_SNPRINTF("%ld %lu|%lld %llx|%jd|%s", LONG_MIN, ULONG_MAX, LLONG_MIN, 1ULL << 63, INTMAX_MIN, "next");
    EXPECT_AS_SNPRINTF("%zu|%td|%p|%s", SIZE_MAX, PTRDIFF_MIN, static_cast<void *>(&here), "next");
    EXPECT_AS_SNPRINTF("%f %Lg %e|%s", -2.0 / 3, 6.0L, 1e300, "next");
    EXPECT_AS_SNPRINTF("%c%lc %ls %s|%s", 0xe4, static_cast<wint_t>(L'w'), L"wide", "", "next");
    EXPECT_AS_SNPRINTF("%%|%d%%", 50);
    EXPECT_AS_SNPRINTF("plain");
    // More than any machine passes in registers, of both register classes.
    EXPECT_AS_SNPRINTF("%d %f %s %lld %c %Lf %d %g %u %zu %s %d %f %lld %d %f %f %f %f %f", 1, 2.0, "three", 4LL, '5',
                       6.0L, 7, 8.0, 9u, size_t{10}, "11", 12, 13.0, 14LL, 15, 16.0, 17.0, 18.0, 19.0, 20.0);
}

TEST(AtSnprintf, takes_width_and_precision_from_the_arguments)
{
    for (int width : {0, 7, -7}) {
        for (int precision : {-1, 0, 2}) {
            EXPECT_AS_SNPRINTF("%0*d|%-*.*d|%*.*s|%.*f|%s", width, 42, width, precision, 42, width, precision, "voice",
                               precision, 2.5, "next");
        }
    }
}

TEST(AtSnprintf, writes_a_mac_address_between_other_arguments)
{
    const uint8_t mac[6] = {0x00, 0x04, 0x76, 0x22, 0x20, 0xff};
    const uint8_t *none = nullptr;
    expect_text("0004.7622.20FF", "%m", mac);
    expect_text("5% ifx=7, *mac=0004.7622.20FF, vlan=100", "5%% ifx=%d, *mac=%m, vlan=%u", 7, mac, 100u);
    expect_text("(null) 3", "%m %d", none, 3);
    expect_text("  0004.7622.20FF|0004.7622.20FF  |0004|  0004 7", "%16m|%-*m|%.4m|%*.*m %d", mac, 16, mac, mac, 6, 4,
                mac, 7);
}

TEST(AtSnprintf, refuses_a_bad_format_and_leaves_the_buffer_terminated)
{
    for (const char *format :
         {"ab%", "ab%5", "ab%l", "ab%q", "ab%1$d", "ab%n", "ab%lm", "ab%***m", "ab%99999999999d"}) {
        const std::unique_ptr<char[]> buf(new char[4]{'x', 'x', 'x', 'x'});
        EXPECT_LT(at_snprintf(buf.get(), 4, format, 1, 1, 1, 1), 0) << format;
        EXPECT_LT(std::string(buf.get(), 4).find('\0'), 4u) << format;
    }
    EXPECT_LT(at_snprintf(nullptr, 0, nullptr), 0);
}

} // namespace
