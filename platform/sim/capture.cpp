// A capture is read to its end before it is played. Otherwise the first half of
// a damaged one would leave the switch in a state that nobody wants.
#include "platform/sim/capture.h"

#include "platform/base/file.h"

#include <pcap/pcap.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace vvl::sim
{
namespace
{

constexpr uint64_t us_per_s = 1'000'000;

struct PcapCloser {
    void operator()(pcap_t *pcap) const { pcap_close(pcap); }
};
using Pcap = std::unique_ptr<pcap_t, PcapCloser>;

Pcap open_capture(const std::string &path, std::string &why)
{
    File file = open_input(path, why);
    if (file == nullptr) {
        return nullptr;
    }
    char reason[PCAP_ERRBUF_SIZE] = "";
    Pcap pcap(pcap_fopen_offline(file.get(), reason));
    if (pcap == nullptr) {
        why = path + ": " + reason;
        return nullptr;
    }
    static_cast<void>(file.release()); // the file is closed with the capture
    const int link = pcap_datalink(pcap.get());
    if (link != DLT_EN10MB) {
        const char *name = pcap_datalink_val_to_name(link);
        why = path + ": link type " + (name != nullptr ? name : std::to_string(link)) + " is not Ethernet";
        return nullptr;
    }
    return pcap;
}

// What is wrong with a frame; empty where nothing is.
std::string fault_of(const pcap_pkthdr &header)
{
    if (header.len > capture_frame_size_max || header.caplen > capture_frame_size_max) {
        return "is larger than " + std::to_string(capture_frame_size_max) + " bytes";
    }
    if (header.caplen != header.len) {
        return "is cut short: " + std::to_string(header.caplen) + " of " + std::to_string(header.len) +
               " bytes were captured";
    }
    return "";
}

} // namespace

bool read_capture(const std::string &path, Capture &capture, std::string &why)
{
    const Pcap pcap = open_capture(path, why);
    if (pcap == nullptr) {
        return false;
    }
    Capture frames;
    uint64_t first_us = 0;
    pcap_pkthdr *header = nullptr;
    const u_char *bytes = nullptr;
    int rv = 0;
    while ((rv = pcap_next_ex(pcap.get(), &header, &bytes)) == 1) {
        const std::string fault = fault_of(*header);
        if (!fault.empty()) {
            why = path;
            why.append(": frame ").append(std::to_string(frames.size() + 1)).append(" ").append(fault);
            return false;
        }
        const uint64_t stamp_us =
            static_cast<uint64_t>(header->ts.tv_sec) * us_per_s + static_cast<uint64_t>(header->ts.tv_usec);
        first_us = frames.empty() ? stamp_us : first_us;
        uint64_t time_us = stamp_us > first_us ? stamp_us - first_us : 0;
        if (!frames.empty() && time_us < frames.back().time_us) {
            time_us = frames.back().time_us;
        }
        frames.push_back({time_us, {bytes, bytes + header->caplen}});
    }
    if (rv != PCAP_ERROR_BREAK || frames.empty()) {
        why = path + ": " + (rv != PCAP_ERROR_BREAK ? pcap_geterr(pcap.get()) : "contains no frame");
        return false;
    }
    capture = std::move(frames);
    return true;
}

namespace
{

// What a capture begins with, in either byte order: pcap with microseconds or
// nanoseconds, and pcapng.
constexpr std::string_view capture_marks[] = {"\xd4\xc3\xb2\xa1", "\xa1\xb2\xc3\xd4", "\x4d\x3c\xb2\xa1",
                                              "\xa1\xb2\x3c\x4d", "\x0a\x0d\x0d\x0a"};

// A new file, an empty one or a capture. A mistyped path must not cost a file.
bool may_overwrite(const std::string &path, std::string &why)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        return true; // opening it tells what is wrong
    }
    const File file = open_input(path, why, SIZE_MAX);
    if (file == nullptr) {
        return false;
    }
    char mark[4] = "";
    const size_t size = std::fread(mark, 1, sizeof mark, file.get());
    if (size != 0 && std::ranges::find(capture_marks, std::string_view(mark, size)) == std::end(capture_marks)) {
        why = path + ": exists and is not a capture; it is not overwritten";
        return false;
    }
    return true;
}

} // namespace

struct CaptureWriter::Impl {
    std::string path;
    Pcap pcap;
    pcap_dumper_t *dumper = nullptr;
};

CaptureWriter::CaptureWriter() = default;

CaptureWriter::~CaptureWriter()
{
    std::string ignored;
    close(ignored);
}

bool CaptureWriter::open(const std::string &path, std::string &why)
{
    if (!may_overwrite(path, why)) {
        return false;
    }
    auto impl = std::make_unique<Impl>();
    impl->path = path;
    impl->pcap.reset(pcap_open_dead(DLT_EN10MB, capture_frame_size_max));
    FILE *file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        why = path + ": " + std::strerror(errno);
        return false;
    }
    impl->dumper = pcap_dump_fopen(impl->pcap.get(), file);
    if (impl->dumper == nullptr) {
        std::fclose(file);
        why = path + ": " + pcap_geterr(impl->pcap.get());
        return false;
    }
    impl_ = std::move(impl);
    return true;
}

void CaptureWriter::write(uint64_t time_us, std::span<const uint8_t> frame)
{
    if (impl_ == nullptr) {
        return;
    }
    pcap_pkthdr header{};
    header.ts.tv_sec = static_cast<time_t>(time_us / us_per_s);
    header.ts.tv_usec = static_cast<suseconds_t>(time_us % us_per_s);
    header.caplen = header.len = static_cast<bpf_u_int32>(frame.size());
    // libpcap's own signature for a callback carries the dumper as bytes.
    pcap_dump(reinterpret_cast<u_char *>(impl_->dumper), &header, frame.data());
}

bool CaptureWriter::close(std::string &why)
{
    if (impl_ == nullptr) {
        return true;
    }
    const bool written = pcap_dump_flush(impl_->dumper) == 0 && std::ferror(pcap_dump_file(impl_->dumper)) == 0;
    if (!written) {
        why = impl_->path + ": " + std::strerror(errno);
    }
    pcap_dump_close(impl_->dumper);
    impl_.reset();
    return written;
}

} // namespace vvl::sim
