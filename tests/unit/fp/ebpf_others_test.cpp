// Others on the machine: what they do to the plane in the kernel, and what the
// plane leaves alone.
#include "platform/fp/ebpf/counters.h"
#include "platform/fp/ebpf/features.h"
#include "platform/fp/ebpf/kernel.h"
#include "platform/fp/ebpf/leave.h"
#include "tests/unit/fp/ebpf_rig.h"

#include <bpf/bpf.h>
#include <cstdlib>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vvl::fp::test
{
namespace
{

class EbpfOthersTest : public ::testing::Test, public PlaneEvents
{
  public:
    void voice_trapped(uint32_t, const Mac &, std::span<const uint8_t>) override { trapped_++; }
    void mac_seen(uint16_t, const Mac &, uint32_t) override {}

  protected:
    void SetUp() override
    {
        if (const std::string &why = vvl::test::enter_own_network(); !why.empty()) {
            GTEST_SKIP() << why;
        }
        rig_ = std::make_unique<EbpfRig>(true);
        state_.rules[1] = {voice_mark_rule(5)};
        state_.binding = {{1, acl_bit(Acl::voice)}};
        ASSERT_EQ(0, rig_->plane().install(state_));
    }

    std::unique_ptr<EbpfRig> rig_;
    PlaneState state_;
    int trapped_ = 0;
};

TEST_F(EbpfOthersTest, DetachTakesOffOnlyWhatIsOurs)
{
    make_interface(77);
    ASSERT_EQ(0, std::system("tc qdisc add dev port77 clsact && tc filter add dev port77 ingress u32 match u32 0 0"));
    std::string why;
    ASSERT_TRUE(rig_->plane().add_port({.phyid = 77, .interface = "port77"}, why)) << why;
    ASSERT_EQ(0, std::system("tc filter add dev port2 egress u32 match u32 0 0"));
    const std::string folder = pin_folder;
    ASSERT_EQ(0, mkdir((folder + "/layout-1").c_str(), 0700)); // as another version left it
    ASSERT_EQ(0, bpf_obj_pin(Probe().ingress_program(), (folder + "/layout-1/egress").c_str()));
    ASSERT_EQ(0, bpf_obj_pin(Probe().ingress_program(), (folder + "/layout-1/another").c_str()));
    rig_->stop_agent();
    std::vector<std::string> report;
    EXPECT_TRUE(ebpf_detach({.pin_folder = folder}, report, why)) << why;
    ASSERT_EQ(6u, report.size()); // five interfaces and the pins
    EXPECT_EQ(folder + ": pins removed; the folder stays, it is in use", report.back());
    const auto has = [](const std::string &what) { return std::system(("tc " + what + " | grep -q .").c_str()) == 0; };
    EXPECT_TRUE(has("filter show dev port77 ingress"));
    EXPECT_FALSE(has("filter show dev port77 egress"));
    EXPECT_TRUE(has("filter show dev port2 egress"));
    EXPECT_FALSE(has("qdisc show dev port1 | grep clsact"));
    EXPECT_EQ(0, std::system(("test $(ls " + folder + "/*) = another").c_str()));
    EXPECT_EQ(0, unlink((folder + "/layout-1/another").c_str()));
    report.clear();
    EXPECT_TRUE(ebpf_detach({.pin_folder = folder}, report, why)) << why;
    EXPECT_EQ(std::vector<std::string>({folder + ": pins removed"}), report);
    EXPECT_NE(0, access(pin_folder, F_OK));
    std::system("ip link delete port77; ip link delete port2");
}

// Folders that somebody else may have a hand in: neither an agent nor detach
// changes anything there.
TEST_F(EbpfOthersTest, FoldersThatAreNotOursAreRefused)
{
    struct Row {
        const char *make; // in /sys/fs/bpf
        const char *folder;
        const char *reason;
    };
    const Row rows[] = {
        {"ln -sfn plane link", "link", "not safe as a pin folder: it is a symbolic link"},
        {"mkdir other && chown 1 other", "other", "not safe as a pin folder: it belongs to another user"},
        {"mkdir group && chmod 770 group", "group", "not safe as a pin folder: others may write to it (chmod 0700)"},
        {"mkdir open && chmod 777 open && mkdir -m 700 open/own", "open/own",
         "not safe as a pin folder: others may write to a folder above it: /sys/fs/bpf/open"},
        {"mkdir -p theirs/own && chmod 700 theirs/own && chown 1 theirs", "theirs/own",
         "not safe as a pin folder: a folder above it belongs to another user: /sys/fs/bpf/theirs"},
        {"mkdir -p /tmp/ebpf_test/kept", "../../../tmp/ebpf_test", "not on a BPF file system (mount -t bpf)"},
    };
    VirtualLoop loop;
    for (const Row &row : rows) {
        ASSERT_EQ(0, std::system(("cd /sys/fs/bpf && " + std::string(row.make)).c_str()));
        const std::string folder = "/sys/fs/bpf/" + std::string(row.folder);
        const std::string expected = folder + ": " + row.reason;
        std::string why;
        EXPECT_EQ(nullptr, EbpfPlane::open(loop, {.pin_folder = folder}, why));
        EXPECT_EQ(expected, why);
        std::vector<std::string> report;
        EXPECT_FALSE(ebpf_detach({.pin_folder = folder}, report, why));
        EXPECT_EQ(expected, why);
        EXPECT_TRUE(report.empty());
        EXPECT_EQ(0, access(folder.c_str(), F_OK));
    }
    EXPECT_EQ(0, std::system("cd /sys/fs/bpf && rmdir /tmp/ebpf_test/kept /tmp/ebpf_test && rm link && "
                             "rmdir open/own theirs/own open theirs other group"));
    EXPECT_EQ(state_, rig_->plane().installed());
}

// To ask what this machine offers takes nothing away and leaves nothing.
TEST_F(EbpfOthersTest, CheckLeavesFoldersAsTheyWere)
{
    const std::string empty = "/sys/fs/bpf/empty";
    const std::string none = "/sys/fs/bpf/none";
    ASSERT_EQ(0, mkdir(empty.c_str(), 0700));
    ebpf_features({.pin_folder = empty});
    ebpf_features({.pin_folder = none + "/below"});
    EXPECT_EQ(0, rmdir(empty.c_str()));
    EXPECT_NE(0, access(none.c_str(), F_OK));
}

// A second process has no part in what the first one does, whatever it starts as.
TEST_F(EbpfOthersTest, SecondAgentChangesNothing)
{
    ASSERT_EQ(0, rig_->plane().set_trap(1, true));
    rig_->send(1, ethernet(server, phone, {}, 0x0800, ipv4(1)));
    VirtualLoop loop;
    std::string why;
    KernelSide side;
    ASSERT_TRUE(open_kernel_side(beside_the_agent, side, why)) << why;
    const std::vector<uint32_t> programs = programs_of(side.folder);
    const uint64_t build = ++side.shared().build; // a process that may write replaces the programs
    const std::string folder = pin_folder;
    EXPECT_EQ(nullptr, EbpfPlane::open(loop, {.pin_folder = folder}, why));
    EXPECT_EQ(folder + ": another agent controls this plane", why);
    EXPECT_EQ(nullptr, EbpfPlane::open(loop, {.pin_folder = folder, .is_agent = false}, why));
    EXPECT_EQ(folder + ": another process reads the events of this plane", why);
    std::vector<std::string> report;
    EXPECT_FALSE(ebpf_detach({.pin_folder = folder}, report, why));
    EXPECT_EQ(folder + ": another agent controls this plane; nothing was detached", why);
    EXPECT_TRUE(report.empty());
    EXPECT_EQ(build, side.shared().build);
    EXPECT_EQ(programs, programs_of(side.folder));
    rig_->plane().set_events(this);
    rig_->advance(0);
    EXPECT_EQ(1, trapped_);

    const UniqueFd turn = take_turn(folder, why);
    EXPECT_FALSE(take_turn(folder, why, std::chrono::milliseconds(20)));
    EXPECT_EQ(folder + ": another process has kept it locked for 20 ms", why);
}

// The interfaces that the pins are for are in the first namespace.
TEST_F(EbpfOthersTest, AnotherNetworkNamespaceOnlyLooks)
{
    rig_->stop_agent();
    const int status = in_child([] {
        vvl::test::enter_empty_network();
        make_interface(1); // whose name, and perhaps index, is that of a port
        std::vector<std::string> report;
        std::string why;
        bool good =
            !ebpf_detach({.pin_folder = pin_folder}, report, why) && report.empty() &&
            why == std::string(pin_folder) + ": its interfaces are in another network namespace; nothing was detached";
        good = good && ebpf_counters({.pin_folder = pin_folder}, report, why) &&
               report.size() == 5; // the last one is of all ports
        return good && report[1].starts_with("port 1 (port1), 0 in") &&
               report[1].find("not served") == std::string::npos;
    });
    EXPECT_EQ(0, status);
    rig_->restart_agent();
    EXPECT_EQ(state_, rig_->plane().installed());
}

// What somebody does at an interface, and what becomes of it.
TEST_F(EbpfOthersTest, LostProgramsArePutBackOrShown)
{
    struct Row {
        const char *done; // by tc
        PortHealth health;
        const char *what;
        const char *undone;
    };
    const Row rows[] = {
        {"true", PortHealth::served, "", "true"},
        {"tc qdisc del dev port1 clsact", PortHealth::restored, "the clsact queue discipline was removed", "true"},
        {"tc filter del dev port1 ingress", PortHealth::restored, "the ingress program is missing", "true"},
        {"tc filter del dev port1 egress", PortHealth::restored, "the egress program is missing", "true"},
        {"tc filter add dev port1 ingress prio 10 u32 match u32 0 0", PortHealth::not_served,
         "a u32 filter with priority 10 comes before the ingress program", "tc filter del dev port1 ingress prio 10"},
        {"tc filter add dev port1 egress prio 30000 u32 match u32 0 0", PortHealth::served, "", "true"},
        {"tc filter del dev port1 egress && tc filter add dev port1 egress prio 22102 u32 match u32 0 0",
         PortHealth::not_served, "another program has the filter egress priority 22102 already",
         "tc filter del dev port1 egress prio 22102"},
    };
    for (const Row &row : rows) {
        ASSERT_EQ(0, std::system(row.done));
        std::string what;
        EXPECT_EQ(row.health, rig_->plane().look_after(1, what)) << row.done << what;
        EXPECT_EQ(row.what, row.health == PortHealth::served ? "" : what);
        std::vector<std::string> report;
        std::string why;
        EXPECT_EQ(row.health != PortHealth::not_served, ebpf_counters({.pin_folder = pin_folder}, report, why));
        EXPECT_EQ(why, row.health == PortHealth::not_served ? "not served: port 1 (port1)" : "");
        ASSERT_EQ(0, std::system(row.undone));
        rig_->plane().look_after(1, what);
        EXPECT_EQ(PortHealth::served, rig_->plane().look_after(1, what)) << row.done << what;
    }
}

TEST_F(EbpfOthersTest, PortOutOfTheConfigurationIsDetached)
{
    ASSERT_EQ(0, rig_->plane().set_trap(2, true));
    rig_->plane().keep_only(std::vector<PlanePort>{{.phyid = 1, .interface = "port1", .ifx = 1}});
    EXPECT_EQ(0, std::system("tc filter show dev port1 ingress | grep -q vvlan_ingress"));
    EXPECT_NE(0, std::system("tc qdisc show dev port2 | grep -q clsact"));
    std::vector<std::string> report;
    std::string why;
    EXPECT_TRUE(ebpf_counters({.pin_folder = pin_folder}, report, why)) << why;
    ASSERT_EQ(2u, report.size()); // the last one is of all ports
    EXPECT_TRUE(report[0].starts_with("port 1 (port1), "));
}

TEST_F(EbpfOthersTest, StrangersAreLeftInTheirPlace)
{
    std::string why;
    make_interface(78);
    bpf_tc_hook hook{};
    hook.sz = sizeof hook;
    hook.ifindex = static_cast<int>(if_nametoindex("port78"));
    hook.attach_point = BPF_TC_EGRESS;
    bpf_tc_opts place{};
    place.sz = sizeof place;
    place.handle = VV_FILTER_HANDLE;
    place.priority = VV_FILTER_PRIORITY;
    Probe stranger;
    place.prog_fd = stranger.ingress_program();
    ASSERT_EQ(0, bpf_tc_hook_create(&hook));
    ASSERT_EQ(0, bpf_tc_attach(&hook, &place));
    EXPECT_FALSE(rig_->plane().add_port({.phyid = 78, .interface = "port78", .ifx = 7}, why));
    EXPECT_EQ("port 7 (port78): another program has the filter egress priority 22102 already", why);
    EXPECT_EQ(0, std::system("tc filter show dev port78 egress | grep -q probe_ingress"));
    std::system("ip link delete port78");
}

} // namespace
} // namespace vvl::fp::test
