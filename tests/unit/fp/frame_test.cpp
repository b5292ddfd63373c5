// Header reading and rewriting: every form, every length, and checksums judged
// by recomputing them.
#include "platform/fp/soft/frame.h"
#include "tests/unit/fp/frames.h"

#include <gtest/gtest.h>
#include <random>
#include <string>
#include <tuple>

namespace vvl::fp::test
{
namespace
{

Bytes framed(std::initializer_list<unsigned> tags, unsigned type, const Bytes &payload)
{
    return ethernet(server, phone, tags, type, payload);
}

Bytes cut(const Bytes &frame, size_t size)
{
    return {frame.begin(), frame.begin() + static_cast<long>(size)}; // as large on the heap
}

// Each form, whole and at each length that it can be cut to: no access behind
// the end, and an IP header that is not whole stays as it is.
TEST(FrameHeader, ReadsEveryFormAtEveryLength)
{
    const struct {
        Bytes frame;
        VlanForm form;
        uint16_t vid;
        uint16_t type;
        size_t header_size;
    } cases[] = {
        {framed({}, 0x0800, ipv4(0)), VlanForm::untagged, 0, 0x0800, 14},
        {framed({0x8100, 0xf000}, 0x0800, ipv4(0)), VlanForm::untagged, 0, 0x0800, 18},
        {framed({0x8100, 0x7064}, 0x86dd, ipv6(0)), VlanForm::tagged, 100, 0x86dd, 18},
        {framed({0x88a8, 0x0fff}, 0x0800, ipv4(0)), VlanForm::tagged, 4095, 0x0800, 18},
        {framed({0x88a8, 7, 0x8100, 9}, 0x0800, ipv4(0, 1, 3)), VlanForm::double_tagged, 7, 0x0800, 22},
        {framed({0x8100, 7, 0x8100, 9}, 0x0800, ipv4(0)), VlanForm::double_tagged, 7, 0x0800, 22},
        {framed({0x9100, 7, 0x8100, 9}, 0x0800, ipv4(0)), VlanForm::double_tagged, 7, 0x0800, 22},
        {framed({0x8100, 0, 0x8100, 9}, 0x0800, ipv4(0)), VlanForm::tagged, 9, 0x0800, 22},
        {framed({0x8100, 0xe000, 0x88a8, 0}, 0x0800, ipv4(0)), VlanForm::untagged, 0, 0x0800, 22},
        {framed({0x8100, 7}, 0x9100, ipv4(0)), VlanForm::tagged, 7, 0x9100, 18}, // an outer type inside
        {framed({}, 0x05dc, Bytes(50, 0x42)), VlanForm::untagged, 0, 0x05dc, 14},
        {framed({0x8100, 3}, 4, {1, 2, 3, 4}), VlanForm::tagged, 3, 4, 18},
    };
    for (const auto &one : cases) {
        for (size_t size = 0; size <= one.frame.size(); size++) {
            SCOPED_TRACE("case " + std::to_string(&one - cases) + " cut to " + std::to_string(size));
            Bytes frame = cut(one.frame, size);
            FrameHeader header;
            const bool whole = read_header(frame, header);
            ASSERT_EQ(size >= one.header_size, whole);
            if (!whole) {
                continue;
            }
            EXPECT_EQ(std::tuple(to_u64(server.data()), to_u64(phone.data()), one.form, one.vid, one.type),
                      std::tuple(header.destination, header.source, header.form(), header.vid, header.ethertype));
            EXPECT_EQ(one.header_size, header.payload);
            const size_t ip_size = one.type == 0x0800
                                       ? (frame.size() > header.payload ? 4 * (frame[header.payload] & 15) : 20)
                                   : one.type == 0x86dd ? 40
                                                        : SIZE_MAX;
            EXPECT_EQ(size - one.header_size >= ip_size, set_dscp(frame, header, 46));
            EXPECT_EQ(size - one.header_size >= ip_size, frame != cut(one.frame, size));
            EXPECT_EQ(header.tag_count > 0, set_cos(frame, header, 5));
        }
    }
}

TEST(FrameRewrite, Ipv4DscpKeepsEcnAndChecksumForAnyHeader)
{
    const uint64_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    for (int i = 0; i < 20000; i++) {
        const auto tos = static_cast<unsigned>(random() % 256);
        const auto dscp = static_cast<uint8_t>(random() % 64);
        const auto options = static_cast<unsigned>(random() % 11);
        Bytes before = framed({}, 0x0800, ipv4(tos, static_cast<unsigned>(random() & 0xffff), options));
        before[24] ^= static_cast<uint8_t>(i % 2 * 0x10); // damaged on its way: must not look sound behind the switch
        Bytes after = before;
        FrameHeader header;
        ASSERT_TRUE(read_header(after, header));
        ASSERT_TRUE(set_dscp(after, header, dscp));
        ASSERT_EQ(dscp << 2 | (tos & 3), after[15]);
        ASSERT_EQ(i % 2 == 0, ipv4_sum(std::span(after).subspan(14)) == 0xffff);
        Bytes restored = after;
        restored[15] = before[15];
        restored[24] = before[24];
        restored[25] = before[25];
        ASSERT_EQ(before, tos >> 2 == dscp ? after : restored);
    }
}

} // namespace
} // namespace vvl::fp::test
