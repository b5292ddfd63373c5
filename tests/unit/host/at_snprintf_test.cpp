// at_snprintf against snprintf: the same text, the same result and the same
// cut, for every size of buffer. Buffers are exact, so that a byte written
// beyond one is found by the address sanitizer.
#include "tq_zlog.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <memory>
#include <string>

namespace
{

template <typename... Values> void expect_as_text(const std::string &text, const char *format, Values... values)
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

template <typename... Values> void expect_as_snprintf(const char *format, Values... values)
{
    char text[8192];
    ASSERT_GE(std::snprintf(text, sizeof text, format, values...), 0) << format;
    expect_as_text(text, format, values...);
}

TEST(AtSnprintf, writes_integers_of_every_length_as_snprintf)
{
    for (const char *format :
         {"%hhd", "%hhi", "%hd", "%d", "%+d", "% d", "%5d", "%-5d|", "%05d", "%.3d", "%8.3d", "%.0d"}) {
        for (int value : {0, 1, -1, 200, -129, 70000, INT_MIN, INT_MAX}) {
            expect_as_snprintf(format, value);
        }
    }
    for (const char *format : {"%hhu", "%hu", "%u", "%o", "%#o", "%x", "%X", "%#x", "%#010x", "%-#8x|", "%.5x"}) {
        for (unsigned value : {0u, 1u, 255u, 65536u, UINT_MAX}) {
            expect_as_snprintf(format, value);
        }
    }
    expect_as_snprintf("%ld %li %lu %lx", LONG_MIN, LONG_MAX, ULONG_MAX, 1UL << 31);
    expect_as_snprintf("%lld %llu %llx", LLONG_MIN, ULLONG_MAX, 1ULL << 63);
    expect_as_snprintf("%jd %ju", INTMAX_MIN, UINTMAX_MAX);
    expect_as_snprintf("%zu %zd %zx", SIZE_MAX, ptrdiff_t{-1}, size_t{1});
    expect_as_snprintf("%td", PTRDIFF_MIN);
}

TEST(AtSnprintf, writes_floating_point_as_snprintf)
{
    for (const char *format :
         {"%f", "%F", "%e", "%E", "%g", "%G", "%a", "%A", "%.0f", "%#.0f", "%+10.3f", "%-12.2e|", "%lf"}) {
        for (double value : {0.0, -0.0, 1.5, -2.0 / 3, 1e300, DBL_MIN, HUGE_VAL}) {
            expect_as_snprintf(format, value);
        }
    }
    expect_as_snprintf("%Lf %Lg", 1.25L, LDBL_MAX);
}

TEST(AtSnprintf, writes_texts_characters_and_pointers_as_snprintf)
{
    int here = 0;
    for (const char *format : {"%s", "%10s|", "%-10s|", "%.2s", "%8.2s", "%.0s", "%.s"}) {
        expect_as_snprintf(format, "voice");
    }
    expect_as_snprintf("%s", "");
    expect_as_snprintf("%c%3c%-3c|", 'a', 'b', 'c');
    expect_as_snprintf("%c", 0xe4);
    expect_as_snprintf("%p %20p", static_cast<void *>(&here), static_cast<void *>(nullptr));
    expect_as_snprintf("%ls %lc", L"wide", static_cast<wint_t>(L'w'));
    expect_as_snprintf("plain");
    expect_as_snprintf("");
    expect_as_snprintf("%%|%d%%", 50);
}

TEST(AtSnprintf, takes_width_and_precision_from_the_arguments)
{
    for (int width : {0, 7, -7}) {
        for (int precision : {-1, 0, 2}) {
            expect_as_snprintf("%*d|", width, 42);
            expect_as_snprintf("%0*d|", width, 42);
            expect_as_snprintf("%-*.*d|%s", width, precision, 42, "next");
            expect_as_snprintf("%*.*s|%d", width, precision, "voice", 7);
            expect_as_snprintf("%*.*f|%d", width, precision, 2.5, 7);
        }
    }
}

// More arguments than any machine passes in registers, of both register classes.
TEST(AtSnprintf, fetches_many_arguments_of_mixed_types)
{
    expect_as_snprintf("%d %f %s %lld %c %Lf %d %g %u %zu %s %d %f %lld %d %f %f %f %f %f", 1, 2.0, "three", 4LL, '5',
                       6.0L, 7, 8.0, 9u, size_t{10}, "11", 12, 13.0, 14LL, 15, 16.0, 17.0, 18.0, 19.0, 20.0);
}

TEST(AtSnprintf, writes_a_mac_address_between_other_arguments)
{
    const uint8_t mac[6] = {0x00, 0x04, 0x76, 0x22, 0x20, 0xff};
    const uint8_t *none = nullptr;
    expect_as_text("0004.7622.20FF", "%m", mac);
    expect_as_text("ifx=7, mac=0004.7622.20FF, vlan=100", "ifx=%d, mac=%m, vlan=%u", 7, mac, 100u);
    expect_as_text("(null) 3", "%m %d", none, 3);
    expect_as_text("  0004.7622.20FF|0004.7622.20FF  |0004", "%16m|%-*m|%.4m", mac, 16, mac, mac);
}

TEST(AtSnprintf, refuses_a_bad_format_and_leaves_the_buffer_terminated)
{
    for (const char *format : {"ab%", "ab%5", "ab%l", "ab%q", "ab%1$d", "ab%n", "ab%hf", "ab%Ld", "ab%lm",
                               "ab%99999999999d", "ab%.2147483648d"}) {
        char buf[8] = "xxxxxxx";
        EXPECT_LT(at_snprintf(buf, sizeof buf, format, 1, 1), 0) << format;
        EXPECT_STREQ(buf, "ab") << format;
    }
    char buf[8] = "x";
    EXPECT_LT(at_snprintf(buf, sizeof buf, "%*d", INT_MIN, 1), 0);
    EXPECT_LT(at_snprintf(buf, sizeof buf, nullptr), 0);
}

} // namespace
