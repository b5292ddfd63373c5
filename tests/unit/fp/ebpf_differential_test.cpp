// Both planes give the same answer: random rule sets, and random and mutated
// frames, through the programs in the kernel and through run_acls.
#include "platform/fp/soft/pipeline.h"
#include "tests/unit/fp/dice.h"
#include "tests/unit/fp/ebpf_rig.h"

#include <cstdlib>
#include <map>
#include <net/if.h>

namespace vvl::fp::test
{
namespace
{

constexpr unsigned rule_sets = 250; // unless VVLAN_RULE_SETS says how many
constexpr unsigned frames_per_set = 4096;

PlaneState random_state(Dice &dice)
{
    PlaneState state;
    for (auto &rules : state.rules) {
        rules = dice.rules();
    }
    state.binding[1] = static_cast<uint8_t>(dice.below(8));
    return state;
}

Bytes random_frame(Dice &dice)
{
    const Mac receivers[] = {server,
                             server,
                             server,
                             server,
                             broadcast,
                             {0x01, 0x80, 0xc2, 0, 0, 0x0e},
                             {0x01, 0x80, 0xc2, 0, 0, 0x10},
                             {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xcd},
                             {0x01, 0x00, 0x0c, 0xcc, 0xcc, 0xce}};
    const unsigned types[] = {0x8100, 0x8100, 0x88a8, 0x9100, 0x0806};
    const unsigned vids[] = {100, 100, 1, 0, 0x8000, 0x6064, 0xb000, 4095};
    const unsigned payload_types[] = {0x0800, 0x0800, 0x86dd, 0x0806, 0x8100, 60};
    const Mac from = dice.address();
    const Mac to = dice.one_of(receivers);
    const Bytes payload =
        dice.below(4) == 0 ? ipv6(dice.below(256)) : ipv4(dice.below(256), dice.below(65536), dice.below(11));
    const unsigned tags = dice.below(4);
    Bytes frame;
    if (tags == 0) {
        frame = ethernet(to, from, {}, dice.one_of(payload_types), payload);
    } else if (tags < 3) {
        frame = ethernet(to, from, {dice.one_of(types), dice.one_of(vids)}, dice.one_of(payload_types), payload);
    } else {
        frame = ethernet(to, from, {dice.one_of(types), dice.one_of(vids), dice.one_of(types), dice.one_of(vids)},
                         dice.one_of(payload_types), payload);
    }
    if (dice.below(4) == 0) {
        frame[dice.below(static_cast<unsigned>(frame.size()))] ^= static_cast<uint8_t>(1u << dice.below(8));
    }
    if (dice.below(8) == 0) {
        frame.resize(14 +
                     dice.below(static_cast<unsigned>(frame.size()) - 13)); // 14: the least that the kernel hands on
    }
    return frame;
}

// In which form each device talked last in each VLAN, since the addresses were
// forgotten: what its frames have to leave in.
class NewestForms
{
  public:
    // verdict: of a frame that came in with this header.
    void note(const FrameHeader &header, const Verdict &verdict)
    {
        const bool is_station = header.source != 0 && (header.source >> 40 & 1) == 0;
        if (is_station && !verdict.drop && !verdict.reserved && header.form() != VlanForm::double_tagged &&
            (header.in_tagged_vlan() || header.tag_count < 2)) {
            forms_[{header.source, verdict.vlan}] = header.form();
        }
    }

    // Frames to some of them, out of the port.
    uint64_t count_differences(Probe &probe, uint32_t ifindex, Dice &dice, bool bound) const
    {
        uint64_t differences = 0;
        for (const auto &[key, form] : forms_) {
            const auto &[mac, vlan] = key;
            if (dice.below(4) == 0) {
                const Bytes frame = ethernet(mac_of(mac), server, {0x8100, vlan}, 0x0800, ipv4(0));
                const bool untagged = bound && form == VlanForm::untagged;
                const Bytes expected = untagged ? ethernet(mac_of(mac), server, {}, 0x0800, ipv4(0)) : frame;
                differences += probe.egress(ifindex, frame, dice.below(2) == 0).frame != expected;
            }
        }
        return differences;
    }

  private:
    std::map<std::pair<uint64_t, uint16_t>, VlanForm> forms_;
};

TEST(EbpfDifferential, KernelAndClassifierTreatEveryFrameAlike)
{
    if (const std::string &why = vvl::test::enter_own_network(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    const char *asked = std::getenv("VVLAN_RULE_SETS");
    const unsigned sets = asked != nullptr ? static_cast<unsigned>(std::atoi(asked)) : rule_sets;
    ASSERT_LT(0u, sets);
    Dice dice(20261123);
    EbpfRig rig(true);
    Probe probe;
    const uint32_t ifindex = if_nametoindex("port1");
    PortCounters expected;
    uint64_t differences = 0;
    for (unsigned set = 0; set < sets && differences == 0; set++) {
        const PlaneState state = random_state(dice);
        const auto pvid = static_cast<uint16_t>(dice.below(2) == 0 ? 100 : 1 + dice.below(4094));
        std::string why;
        const bool uplink = dice.below(4) == 0;
        const PlanePort port{.phyid = 1, .pvid = pvid, .uplink = uplink, .interface = "port1"};
        ASSERT_EQ(0, rig.plane().install(state));
        ASSERT_TRUE(rig.plane().add_port(port, why)) << why;
        AclSet acls;
        for (size_t i = 0; i < acl_count; i++) {
            acls.acls[i] = Classifier(state.rules[i]);
        }
        rig.plane().set_link(1, false);
        NewestForms forms;
        for (unsigned i = 0; i < frames_per_set; i++) {
            if (uplink && i % (frames_per_set / 8) == 0) { // an access port has no room for so many addresses
                const bool bound = (state.binding.at(1) & acl_bit(Acl::mac_vlan)) != 0;
                EXPECT_EQ(0u, forms.count_differences(probe, ifindex, dice, bound)) << "set " << set;
            }
            const Bytes frame = random_frame(dice);
            Bytes out = frame;
            FrameHeader header;
            const bool whole = read_header(out, header);
            const FrameHeader came = header;
            const Verdict verdict =
                whole ? run_acls(acls, {state.binding.at(1), pvid, uplink}, out, header) : Verdict{.drop = true};
            if (whole) {
                forms.note(came, verdict);
            }
            const ProbeResult result = probe.ingress(ifindex, frame, dice.below(2) == 0);
            expected.in++;
            expected.tagged += verdict.tagged;
            expected.remarked += verdict.remarked;
            expected.dropped += verdict.drop;
            if (result.forwarded == verdict.drop || (result.forwarded && result.frame != out)) {
                differences++;
                ADD_FAILURE() << "set " << set << ", frame " << i << ":\n  in     " << ::testing::PrintToString(frame)
                              << "\n  soft   " << ::testing::PrintToString(out) << "\n  kernel "
                              << ::testing::PrintToString(result.frame);
            }
        }
    }
    const PortCounters counted = rig.plane().counters(1);
    expected.out = counted.out; // the kernel's bridge sends
    EXPECT_EQ(expected, counted);
    // None of the outcomes is a rare one.
    for (const uint64_t count : {counted.tagged, counted.remarked, counted.dropped}) {
        EXPECT_LT(expected.in / 20, count);
    }
}

} // namespace
} // namespace vvl::fp::test
