// Frames with any content through the software plane under any rules: nothing
// is read or written past a frame, and a frame that leaves is the one that came
// in, except for its tags and its IP header.
#include "platform/base/log.h"
#include "platform/base/virtual_loop.h"
#include "platform/fp/soft/frame.h"
#include "platform/fp/soft/plane_soft.h"
#include "tests/fuzz/plane_rules.h"

namespace vvl::test
{
namespace
{

using Frame = std::vector<uint8_t>;

constexpr uint32_t port_count = 3; // 0 and 1: access; 2: uplink; more: unknown

// A frame that is mostly headers: addresses, tags, and the begin of a packet.
Frame read_frame(ByteReader &in)
{
    Frame frame;
    auto put = [&](std::span<const uint8_t> bytes) { frame.insert(frame.end(), bytes.begin(), bytes.end()); };
    put(read_address(in));
    put(read_address(in));
    for (uint32_t tags = in.below(4); tags > 0; tags--) {
        static constexpr uint8_t types[][2] = {{0x81, 0x00}, {0x88, 0xa8}, {0x91, 0x00}};
        put(types[in.below(3)]);
        const uint16_t tci = static_cast<uint16_t>(in.one_of({100, 0, 0xe000, 0xffff}));
        put(std::initializer_list<uint8_t>{static_cast<uint8_t>(tci >> 8), static_cast<uint8_t>(tci)});
    }
    static constexpr uint8_t packets[][3] = {{0x08, 0x00, 0x45}, {0x08, 0x00, 0x4f}, {0x86, 0xdd, 0x60}, {}};
    put(packets[in.below(4)]);
    put(in.bytes(in.below(64)));
    frame.resize(frame.size() - std::min<size_t>(frame.size(), in.below(16) == 0 ? in.u8() : 0));
    frame.shrink_to_fit();
    return frame;
}

fp::PlaneState read_state(ByteReader &in)
{
    fp::PlaneState state;
    for (auto &rules : state.rules) {
        rules.resize(in.below(4));
        uint64_t id = 0;
        for (fp::Rule &rule : rules) {
            rule = read_rule(in, ++id);
        }
    }
    for (uint32_t phyid = 0; phyid < port_count; phyid++) {
        state.binding[phyid] = in.u8() & 7;
    }
    return state;
}

class Bench
{
  public:
    Bench()
    {
        for (uint32_t phyid = 0; phyid < port_count; phyid++) {
            std::string why;
            plane_.add_port({phyid, static_cast<uint16_t>(1 + phyid % 2), phyid == 2, {}}, why);
        }
        plane_.set_output([this](uint32_t phyid, std::span<const uint8_t> sent) { check_output(phyid, sent); });
    }

    void step(ByteReader &in)
    {
        const uint32_t phyid = in.below(port_count + 1);
        switch (in.below(8)) {
        case 0:
            plane_.install(read_state(in));
            break;
        case 1:
            plane_.set_trap(phyid, in.flag());
            break;
        case 2:
            plane_.set_link(phyid, in.flag());
            break;
        case 3:
            loop_.advance(uint64_t{in.u16()} * 100'000);
            break;
        default:
            receive(phyid, in);
        }
    }

  private:
    void receive(uint32_t phyid, ByteReader &in)
    {
        frame_ = read_frame(in);
        from_ = phyid;
        const fp::PortCounters before = plane_.total();
        plane_.receive(phyid, frame_);
        const fp::PortCounters after = plane_.total();
        require(after.dropped <= before.dropped + 1 && (after.out == before.out || after.dropped == before.dropped),
                "a frame leaves or is dropped, once");
    }

    void check_output(uint32_t phyid, std::span<const uint8_t> sent) const
    {
        require(phyid != from_ && phyid < port_count, "a frame leaves by another port");
        require(sent.size() == frame_.size() || sent.size() == frame_.size() + 4, "a frame grows by a tag at most");
        require(std::equal(sent.begin(), sent.begin() + 12, frame_.begin()), "a frame keeps its addresses");
        fp::FrameHeader before;
        fp::FrameHeader after;
        require(fp::read_header(frame_, before) && fp::read_header(sent, after), "a frame that leaves has a header");
        constexpr size_t checksum_end = 12; // of an IPv4 header; nothing behind it changes
        const size_t kept = std::min(before.payload + checksum_end, frame_.size());
        require(before.ethertype == after.ethertype && after.payload - before.payload == sent.size() - frame_.size() &&
                    std::equal(frame_.begin() + static_cast<ptrdiff_t>(kept), frame_.end(),
                               sent.end() - static_cast<ptrdiff_t>(frame_.size() - kept)),
                "a frame keeps what is behind its tags and its IP header");
    }

    VirtualLoop loop_;
    fp::SoftPlane plane_{loop_};
    Frame frame_; // in work
    uint32_t from_ = 0;
};

} // namespace
} // namespace vvl::test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const auto quiet = vvl::set_log_sink([](vvl::LogLevel, const std::string &) {});
    vvl::test::ByteReader in({data, size});
    vvl::test::Bench bench;
    while (!in.at_end()) {
        bench.step(in);
    }
    return 0;
}
