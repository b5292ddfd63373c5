// What the plane in the kernel has beyond the contract of all planes: it
// outlives the agent, and it takes the tag off again towards a phone that does
// not tag.
#include "platform/fp/ebpf/kernel.h"
#include "platform/fp/ebpf/leave.h"
#include "platform/fp/error.h"
#include "tests/unit/fp/ebpf_rig.h"

#include <cstdio>
#include <cstdlib>
#include <linux/capability.h>
#include <net/if.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vvl::fp::test
{
namespace
{

constexpr uint8_t all_acls = acl_bit(Acl::mac_vlan) | acl_bit(Acl::voice) | acl_bit(Acl::security);

class EbpfTest : public ::testing::Test, public PlaneEvents
{
  public:
    void voice_trapped(uint32_t, const Mac &, std::span<const uint8_t>) override { trapped_++; }
    void mac_seen(uint16_t vlan, const Mac &, uint32_t) override { seen_in_.push_back(vlan); }

  protected:
    void SetUp() override
    {
        if (const std::string &why = vvl::test::enter_own_network(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        rig_ = std::make_unique<EbpfRig>(true);
        state_.rules[0] = {voice_tag_rule(5)};
        state_.rules[1] = {voice_mark_rule(5)};
        state_.rules[2] = {deny_rule()};
        state_.binding = {{1, all_acls}};
        install();
    }

    void install() { ASSERT_EQ(0, rig_->plane().install(state_)); }

    // Whether tc has anything to tell.
    static bool has(const std::string &what) { return std::system(("tc " + what + " | grep -q .").c_str()) == 0; }

    static Bytes from_phone() { return ethernet(server, phone, {}, 0x0800, ipv4(1)); }
    static Bytes to(const Mac &mac, std::initializer_list<unsigned> tags = {0x8100, 0xc064})
    {
        return ethernet(mac, server, tags, 0x0800, ipv4(46 << 2));
    }

    std::unique_ptr<EbpfRig> rig_;
    PlaneState state_;
    int trapped_ = 0;
    std::vector<uint16_t> seen_in_;
};

// Neither the treatment nor the counters, traps and addresses notice a new agent,
// nor that the last one is of another version: then the programs change places at
// the interfaces, and the maps stay.
TEST_F(EbpfTest, NextAgentTakesOverWhatTheLastOneLeft)
{
    ASSERT_EQ(0, rig_->plane().set_trap(1, true));
    const Sent before = rig_->send(1, from_phone());
    std::string why;
    for (int i = 0; i < 3; i++) {
        KernelSide last;
        ASSERT_TRUE(open_kernel_side(beside_the_agent, last, why)) << why;
        const std::vector<uint32_t> before_start = programs_of(last.folder);
        last.shared().build += i == 1;
        rig_->restart_agent();
        EXPECT_EQ(state_, rig_->plane().installed());
        rig_->plane().set_events(this);
        EXPECT_EQ(before, rig_->send(1, from_phone()));
        const std::vector<uint32_t> after_start = programs_of(last.folder);
        ASSERT_EQ(2u, after_start.size());
        for (size_t hook = 0; hook < after_start.size(); hook++) {
            EXPECT_EQ(i == 1, before_start[hook] != after_start[hook]);
            EXPECT_TRUE(has(std::string("filter show dev port1 ") + (hook == 0 ? "ingress" : "egress") +
                            " | grep ' id " + std::to_string(after_start[hook]) + " '"));
        }
    }
    EXPECT_EQ(4u, rig_->plane().counters(1).tagged);
    EXPECT_EQ(4u, rig_->ebpf().ace_frames(Acl::voice, 5));
    EXPECT_EQ(4, trapped_); // the first frame's too, which nobody had read
    EXPECT_EQ(std::vector<uint16_t>({voice_vlan}), seen_in_);
}

TEST_F(EbpfTest, PlacesOfPortsThatNobodyHasAnyMoreAreTakenAgain)
{
    const uint32_t first = 1000;
    const uint32_t end = first + VV_PORTS_MAX - std::size(ports_under_test);
    for (uint32_t phyid = first; phyid < end; phyid++) {
        state_.binding[phyid] = all_acls;
    }
    install();
    PlaneState more = state_;
    more.binding[end] = all_acls;
    EXPECT_EQ(error_full, rig_->plane().install(more));
    EXPECT_EQ(state_, rig_->plane().installed());
    EXPECT_EQ(error_full, rig_->plane().set_trap(end, true));
    state_.binding.erase(first);
    install();
    EXPECT_EQ(0, rig_->plane().set_trap(end, true));
    EXPECT_EQ(error_full, rig_->plane().install(more));
}

TEST_F(EbpfTest, FramesLeaveABoundPortAsItsDeviceTalks)
{
    const Mac tagging = {0x02, 0x11, 0x22, 0x99, 0x99, 0x99};
    const Bytes untagged = to(phone, {});
    EXPECT_EQ(to(phone), rig_->leave(1, to(phone)).frame); // not heard of yet
    rig_->send(1, from_phone());
    EXPECT_EQ(untagged, rig_->leave(1, to(phone)).frame);
    EXPECT_EQ(to(broadcast, {}), rig_->leave(1, to(broadcast)).frame);
    for (const auto &other :
         {to(phone, {0x8100, 0xc065}), to(phone, {0x88a8, 0xc064}), to(phone, {0x8100, 0xc064, 0x8100, 7}), untagged}) {
        EXPECT_EQ(other, rig_->leave(1, other).frame);
    }
    EXPECT_EQ(to(phone), rig_->leave(2, to(phone)).frame); // not bound

    rig_->send(1, ethernet(server, tagging, {0x8100, voice_vlan}, 0x0800, ipv4(0)));
    EXPECT_EQ(to(tagging), rig_->leave(1, to(tagging)).frame);
    EXPECT_EQ(untagged, rig_->leave(1, to(phone)).frame);
    EXPECT_EQ(to(broadcast, {}), rig_->leave(1, to(broadcast)).frame); // the port's first device goes on

    // The newest form decides, however often it changes; LLDP says nothing about it.
    const Mac lldp = {0x01, 0x80, 0xc2, 0, 0, 0x0e};
    for (int i = 0; i < 3; i++) {
        rig_->send(1, ethernet(server, phone, {0x8100, voice_vlan}, 0x0800, ipv4(0)));
        rig_->send(1, ethernet(lldp, phone, {}, 0x88cc, {}));
        EXPECT_EQ(to(phone), rig_->leave(1, to(phone)).frame);
        EXPECT_EQ(to(broadcast), rig_->leave(1, to(broadcast)).frame);
        rig_->send(1, from_phone());
        rig_->send(1, ethernet(lldp, phone, {0x8100, voice_vlan}, 0x88cc, {}));
        EXPECT_EQ(untagged, rig_->leave(1, to(phone)).frame);
        EXPECT_EQ(to(broadcast, {}), rig_->leave(1, to(broadcast)).frame);
    }
    EXPECT_EQ(to(lldp), rig_->leave(1, to(lldp)).frame);

    // Where the first device has fallen silent, another one takes its place.
    rig_->plane().set_events(this);
    for (uint32_t tick = 0; tick < VV_SPEAKER_TICKS; tick++) {
        EXPECT_EQ(to(broadcast, {}), rig_->leave(1, to(broadcast)).frame);
        rig_->advance(1'000'000);
    }
    rig_->send(1, ethernet(server, tagging, {0x8100, voice_vlan}, 0x0800, ipv4(0)));
    EXPECT_EQ(to(broadcast), rig_->leave(1, to(broadcast)).frame);
    rig_->plane().set_link(1, false); // whoever comes behind it now is the first one
    rig_->send(1, from_phone());
    EXPECT_EQ(to(broadcast, {}), rig_->leave(1, to(broadcast)).frame);

    rig_->plane().forget(voice_vlan, phone);
    EXPECT_EQ(untagged, rig_->leave(1, to(phone)).frame); // aged, its port still knows
    state_.binding.clear();
    install();
    EXPECT_EQ(to(phone), rig_->leave(1, to(phone)).frame);
}

// An interface that is deleted and made again under its name.
TEST_F(EbpfTest, InterfaceMayGoAndComeBack)
{
    const Sent treated = rig_->send(1, from_phone());
    const unsigned before = if_nametoindex("port1");
    ASSERT_EQ(0, std::system("ip link delete port1"));
    rig_->plane().remove_port(1);
    std::string why;
    PlanePort port{.phyid = 1, .interface = "port1", .ifx = 1};
    EXPECT_FALSE(rig_->plane().add_port(port, why));
    EXPECT_EQ("port 1 (port1): no such interface", why);
    make_interface(1);
    ASSERT_NE(before, if_nametoindex("port1"));
    ASSERT_TRUE(rig_->plane().add_port(port, why)) << why;
    EXPECT_EQ(treated, rig_->send(1, from_phone()));
    // A real frame comes to the program as well.
    const uint64_t in = rig_->plane().counters(1).in;
    EXPECT_EQ(0, std::system("ip address add 192.0.2.1/24 dev peer1 && bash -c 'echo > /dev/udp/192.0.2.2/9'"));
    EXPECT_LT(in, rig_->plane().counters(1).in);
}

constexpr const char *capabilities_folder = "/sys/fs/bpf/capabilities";

// An agent that is killed before it has attached anything.
bool half_start()
{
    KernelSide side;
    std::string why;
    return open_kernel_side({.pin_folder = capabilities_folder}, side, why);
}

// Loading, attaching and taking over, by a process that may do nothing else, from
// whatever earlier agents have left.
TEST_F(EbpfTest, TwoCapabilitiesAreEnough)
{
    struct Row {
        const char *name;
        bool (*left_by)(); // the agents since the first one
    };
    const std::string other_layout = std::string(capabilities_folder) + "/layout-1";
    const Row rows[] = {
        {"the same version", [] { return true; }},
        {"another version, killed before it attached its programs",
         [] {
             KernelSide side;
             std::string why;
             return open_kernel_side({capabilities_folder, false, false}, side, why) && ++side.shared().build != 0 &&
                    half_start();
         }},
        {"another layout, killed before it attached its programs",
         [] {
             const std::string from = std::string(capabilities_folder) + "/layout-" + std::to_string(VV_LAYOUT);
             return rename(from.c_str(), (std::string(capabilities_folder) + "/layout-1").c_str()) == 0 && half_start();
         }},
        {"pins lost",
         [] {
             bool removed = false;
             std::string why;
             return remove_pins(capabilities_folder, names_of_pins(), removed, why) && removed;
         }},
    };
    make_interface(79);
    for (const Row &row : rows) {
        const int status = in_child([&row] {
            __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
            __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
            for (const unsigned capability : {unsigned{CAP_BPF}, unsigned{CAP_NET_ADMIN}}) {
                data[capability / 32].effective |= 1u << capability % 32;
                data[capability / 32].permitted |= 1u << capability % 32;
            }
            bool good = syscall(SYS_capset, &header, data) == 0;
            for (int agent = 0; good && agent < 3; agent++) {
                VirtualLoop loop;
                std::string why;
                const PlanePort port{.phyid = 79, .interface = "port79"};
                auto plane = EbpfPlane::open(loop, {.pin_folder = capabilities_folder}, why);
                good = plane != nullptr;
                if (good) {
                    plane->keep_only({&port, 1});
                    good = plane->add_port(port, why) && plane->look_after(79, why) == PortHealth::served;
                }
                plane.reset();
                good = good && (agent != 0 || row.left_by());
                std::fprintf(stderr, "%s", why.c_str());
            }
            return good;
        });
        EXPECT_EQ(0, status) << row.name;
        EXPECT_NE(0, access(other_layout.c_str(), F_OK)) << row.name;
        std::vector<std::string> report;
        std::string why;
        EXPECT_TRUE(ebpf_detach({.pin_folder = capabilities_folder}, report, why)) << why;
        EXPECT_NE(0, std::system("tc filter show dev port79 ingress | grep -q ."));
    }
    std::system("ip link delete port79");
}

} // namespace
} // namespace vvl::fp::test
