// A plane under test: how one is set up and driven. Each row of
// planes_under_test passes the same contract tests.
//
// The switch has the access ports 1 and 2 (VLAN 1) and 3 (VLAN 7), and the
// uplink 9 (VLAN 1).
#pragma once

#include "platform/base/virtual_loop.h"
#include "platform/fp/soft/plane_soft.h"
#include "tests/unit/fp/frames.h"

#include <gtest/gtest.h>
#include <memory>
#include <ostream>
#include <tuple>

namespace vvl::fp::test
{

constexpr uint32_t uplink = 9;
constexpr uint16_t voice_vlan = 100;

inline const PlanePort ports_under_test[] = {
    {.phyid = uplink, .uplink = true}, {.phyid = 1}, {.phyid = 2}, {.phyid = 3, .pvid = 7}};

using Sent = std::vector<std::pair<uint32_t, Bytes>>; // phyid and frame, in order

// Drives one plane. Frames and events are complete when send returns.
class Rig
{
  public:
    virtual ~Rig() = default;
    virtual DataPlane &plane() = 0;
    virtual Sent send(uint32_t phyid, const Bytes &frame) = 0;
    virtual void advance(uint64_t delta_us) = 0;
};

class SoftRig final : public Rig
{
  public:
    SoftRig()
    {
        plane_.set_output([this](uint32_t phyid, std::span<const uint8_t> frame) {
            sent_.emplace_back(phyid, Bytes(frame.begin(), frame.end()));
            if (on_output) {
                on_output(phyid);
            }
        });
        std::string why;
        for (const PlanePort &port : ports_under_test) {
            EXPECT_TRUE(plane_.add_port(port, why)) << why;
        }
    }
    DataPlane &plane() override { return plane_; }
    SoftPlane &soft() { return plane_; }
    Sent send(uint32_t phyid, const Bytes &frame) override
    {
        plane_.receive(phyid, Bytes(frame.begin(), frame.end())); // as large on the heap
        return std::exchange(sent_, {});
    }
    void advance(uint64_t delta_us) override { loop_.advance(delta_us); }

    std::function<void(uint32_t phyid)> on_output; // may bring a frame in

  private:
    VirtualLoop loop_;
    SoftPlane plane_{loop_};
    Sent sent_;
};

struct PlaneUnderTest {
    const char *name;
    std::unique_ptr<Rig> (*make)(); // null where the plane cannot be tested here
};

#ifdef VVLAN_HAS_EBPF
// tag_in_metadata: frames reach the plane with the outer tag taken out of their bytes.
std::unique_ptr<Rig> make_ebpf_rig(bool tag_in_metadata);
#endif

inline const PlaneUnderTest planes_under_test[] = {
    {"soft", []() -> std::unique_ptr<Rig> { return std::make_unique<SoftRig>(); }},
#ifdef VVLAN_HAS_EBPF
    {"ebpf", [] { return make_ebpf_rig(false); }},
    {"ebpf_metadata", [] { return make_ebpf_rig(true); }},
#endif
};

// A row is named by its plane alone: test names stay the same from run to run.
inline void PrintTo(const PlaneUnderTest &row, std::ostream *out)
{
    *out << row.name;
}

// Of the tests' plane; in the kernel its interface is that of ebpf_rig.h.
inline PlanePort port_of(uint32_t phyid, uint16_t pvid)
{
    return {.phyid = phyid, .pvid = pvid, .interface = "port" + std::to_string(phyid)};
}

class PlaneTest : public ::testing::TestWithParam<PlaneUnderTest>, public PlaneEvents
{
  public:
    using Seen = std::tuple<uint16_t, Mac, uint32_t>; // VLAN, address, port
    using Trapped = std::tuple<uint32_t, Mac, Bytes>; // port, address, frame

    void voice_trapped(uint32_t phyid, const Mac &source, std::span<const uint8_t> frame) override
    {
        trapped_.emplace_back(phyid, source, Bytes(frame.begin(), frame.end()));
    }
    void mac_seen(uint16_t vlan, const Mac &mac, uint32_t phyid) override { seen_.emplace_back(vlan, mac, phyid); }

  protected:
    void SetUp() override
    {
        if (rig_ == nullptr) {
            GTEST_SKIP() << "needs root, for namespaces and programs in the kernel";
        }
        rig_->plane().set_events(this);
    }

    void install() { ASSERT_EQ(0, rig_->plane().install(state_)); }

    // The frame as it leaves the uplink, where nothing is learned, or nothing.
    Bytes through(uint32_t phyid, const Bytes &frame)
    {
        const Sent sent = rig_->send(phyid, frame);
        return sent.empty() ? Bytes{} : sent.back().second;
    }

    std::unique_ptr<Rig> rig_ = GetParam().make();
    PlaneState state_; // as last installed
    std::vector<Trapped> trapped_;
    std::vector<Seen> seen_;
};

// Rules as an application makes them, for devices whose first 24 bits are the phone's.
inline Rule voice_tag_rule(uint64_t id)
{
    return {.id = id, .mac = phone, .mask = prefix_mask(24), .form_mask = 3, .add_tag = true, .tag_vid = voice_vlan};
}

inline Rule voice_mark_rule(uint64_t id)
{
    Rule rule{.id = id, .mac = phone, .mask = prefix_mask(24), .vid = voice_vlan, .vid_mask = 0xffff};
    rule.set_cos = rule.set_dscp = rule.set_prio = true;
    rule.cos = rule.prio = 6;
    rule.dscp = 46;
    return rule;
}

inline Rule deny_rule()
{
    return {.id = 1, .vid = voice_vlan, .vid_mask = 0xffff, .drop = true};
}

} // namespace vvl::fp::test
