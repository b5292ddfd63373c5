// Capture files: read completely before a frame is used, and written frame by frame.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vvl::sim
{

constexpr size_t capture_frame_size_max = 65'535; // bytes of one frame

struct CaptureFrame {
    uint64_t time_us; // since the first frame; never goes back
    std::vector<uint8_t> bytes;
};

using Capture = std::vector<CaptureFrame>;

// Reads an Ethernet capture (pcap or pcapng) as open_input does. Fails where a frame is incomplete or
// larger than the limit, and where the file is damaged or empty; why is then
// "PATH: reason" and capture is unchanged. A frame that is older than the one
// before it, as happens with several interfaces, gets the time of that one.
bool read_capture(const std::string &path, Capture &capture, std::string &why);

class CaptureWriter
{
  public:
    CaptureWriter();
    ~CaptureWriter(); // closes
    CaptureWriter(const CaptureWriter &) = delete;
    CaptureWriter &operator=(const CaptureWriter &) = delete;

    // Creates the file, or empties it where it is a capture or empty already;
    // another file is refused and left alone. why as for read_capture.
    bool open(const std::string &path, std::string &why);
    void write(uint64_t time_us, std::span<const uint8_t> frame);
    // False with the reason where a write failed. Does nothing without open().
    bool close(std::string &why);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::sim
