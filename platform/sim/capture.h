// Capture files: read whole before a frame is used, and written frame by frame.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vvl::sim
{

constexpr size_t capture_frame_size_max = 65'535;      // bytes of one frame
constexpr size_t capture_size_max = size_t{256} << 20; // bytes of all frames of a capture

struct CaptureFrame {
    uint64_t time_us; // since the first frame; never goes back
    std::vector<uint8_t> bytes;
};

using Capture = std::vector<CaptureFrame>;

// Reads an Ethernet capture (pcap or pcapng). A frame that was captured in
// part, or is larger than the limit, a damaged file and an empty one fail; why
// is then "PATH: reason" and capture is unchanged. A frame that is older than
// the one before it, as captures from several interfaces hold, is given that
// one's time.
bool read_capture(const std::string &path, Capture &capture, std::string &why);

class CaptureWriter
{
  public:
    CaptureWriter();
    ~CaptureWriter(); // closes
    CaptureWriter(const CaptureWriter &) = delete;
    CaptureWriter &operator=(const CaptureWriter &) = delete;

    // Creates the file, or empties it. why as of read_capture.
    bool open(const std::string &path, std::string &why);
    void write(uint64_t time_us, std::span<const uint8_t> frame);
    // False where a write failed, with the reason. Nothing to do without open().
    bool close(std::string &why);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::sim
