#include "platform/sim/capture.h"
#include "tests/scenario/temp_folder.h"

#include <gtest/gtest.h>

namespace vvl::sim
{
namespace
{

// Offsets in a pcap file, and the sizes of its headers.
constexpr size_t file_header_size = 24;
constexpr size_t link_type_at = 20;
constexpr size_t record_header_size = 16;
constexpr size_t frame_size = 60;

class CaptureTest : public testing::Test
{
  protected:
    // Three frames, at 0, 20 and 10 ms.
    std::string sample() const
    {
        CaptureWriter writer;
        std::string ignored;
        EXPECT_TRUE(writer.open(folder.path("sample.pcap"), ignored)) << ignored;
        uint8_t number = 0;
        for (uint64_t time_us : {5'000'000, 5'020'000, 5'010'000}) {
            writer.write(time_us, std::vector<uint8_t>(frame_size, ++number));
        }
        EXPECT_TRUE(writer.close(ignored)) << ignored;
        return TempFolder::read(folder.path("sample.pcap"));
    }

    static size_t record_at(size_t index) { return file_header_size + index * (record_header_size + frame_size); }

    // Replaces a little-endian word.
    static std::string patch(std::string bytes, size_t at, uint32_t value)
    {
        for (size_t i = 0; i < 4; i++) {
            bytes.at(at + i) = static_cast<char>(value >> 8 * i);
        }
        return bytes;
    }

    TempFolder folder;
};

TEST_F(CaptureTest, WrittenFramesAreReadBackWithTimesThatNeverGoBack)
{
    sample();
    Capture capture;
    std::string why;
    ASSERT_TRUE(read_capture(folder.path("sample.pcap"), capture, why)) << why;
    ASSERT_EQ(capture.size(), 3u);
    EXPECT_EQ(capture[0].time_us, 0u);
    EXPECT_EQ(capture[1].time_us, 20'000u);
    EXPECT_EQ(capture[2].time_us, 20'000u);
    EXPECT_EQ(capture[2].bytes, std::vector<uint8_t>(frame_size, 3));
}

TEST_F(CaptureTest, DamagedOrUnfitFileIsRefusedWithItsReason)
{
    const std::string good = sample();
    const std::pair<std::string, const char *> rows[] = {
        {patch(good, 0, 0x12345678), "unknown file format"},
        {patch(good, link_type_at, 113), "link type LINUX_SLL is not Ethernet"},
        {good.substr(0, file_header_size), "contains no frame"},
        {good.substr(0, 10), "truncated"},
        {good.substr(0, good.size() - 1), "truncated"},  // within a frame
        {good.substr(0, record_at(2) + 3), "truncated"}, // within the header of one
        {patch(good, record_at(1) + 12, 214), "frame 2 is cut short: 60 of 214 bytes were captured"},
        {patch(good, record_at(1) + 12, 70'000), "frame 2 is larger than 65535 bytes"},
        {patch(good, record_at(1) + 8, 0x7fffffff), ""},
    };
    for (const auto &[bytes, reason] : rows) {
        Capture capture{{1, {}}};
        std::string why;
        const std::string path = folder.write("c.pcap", bytes);
        EXPECT_FALSE(read_capture(path, capture, why)) << reason;
        EXPECT_EQ(capture.size(), 1u) << "unchanged";
        EXPECT_TRUE(why.starts_with(path + ": ")) << why;
        EXPECT_NE(why.find(reason), std::string::npos) << why;
    }
}

TEST_F(CaptureTest, OnlyACaptureOrAnEmptyFileIsOverwritten)
{
    const std::string good = sample();
    const std::pair<std::string, std::string> rows[] = {{good, ""},
                                                        {patch(good, 0, 0xa1b23c4d), ""}, // nanoseconds
                                                        {patch(good, 0, 0xd4c3b2a1), ""}, // the other byte order
                                                        {"\x0a\x0d\x0d\x0a and so on", ""},
                                                        {"", ""},
                                                        {"vlan 100 on\n", "exists and is not a capture"},
                                                        {"x", "exists and is not a capture"}};
    for (const auto &[bytes, reason] : rows) {
        const std::string path = folder.write("out.pcap", bytes);
        CaptureWriter writer;
        std::string why;
        EXPECT_EQ(writer.open(path, why), reason.empty()) << bytes;
        EXPECT_NE(why.find(reason), std::string::npos) << why;
        EXPECT_TRUE(reason.empty() || TempFolder::read(path) == bytes) << "left alone";
    }
    CaptureWriter writer;
    std::string why;
    EXPECT_FALSE(writer.open("/dev/null", why));
    EXPECT_EQ(why, "/dev/null: not a regular file");
}

} // namespace
} // namespace vvl::sim
