#include "tests/unit/fp/ebpf_rig.h"

#include "platform/fp/ebpf/leave.h"
#include "tests/support/pinned_maps.h"

#include <bpf/bpf.h>
#include <linux/pkt_cls.h>
#include <net/if.h>
#include <stdexcept>
#include <unistd.h>

namespace vvl::fp::test
{
namespace
{

EbpfOptions options()
{
    return {.pin_folder = pin_folder};
}

} // namespace

std::unique_ptr<Rig> make_ebpf_rig(bool tag_in_metadata)
{
    return vvl::test::enter_own_network().empty() ? std::make_unique<EbpfRig>(tag_in_metadata) : nullptr;
}

std::string make_interface(uint32_t phyid)
{
    const std::string name = "port" + std::to_string(phyid);
    const std::string command = "ip link add " + name + " type veth peer name peer" + std::to_string(phyid) +
                                " && ip link set " + name + " up && ip link set peer" + std::to_string(phyid) + " up";
    if (if_nametoindex(name.c_str()) == 0) {
        vvl::test::run_command(command);
    }
    return name;
}

Probe::Probe() : object_(bpf_object__open_file(VVLAN_PROBE_OBJECT, nullptr))
{
    vvl::test::load_with_pinned_maps(object_.get(), pin_folder);
    ingress_ = bpf_program__fd(bpf_object__find_program_by_name(object_.get(), "probe_ingress"));
    egress_ = bpf_program__fd(bpf_object__find_program_by_name(object_.get(), "probe_egress"));
}

ProbeResult Probe::run(int program, uint32_t ifindex, const Bytes &frame, bool metadata)
{
    constexpr size_t taken_min = 64; // bytes; more than any header
    ProbeResult result;
    Bytes padded = frame;
    padded.resize(std::max(frame.size(), taken_min));
    result.frame.resize(padded.size() + taken_min);
    __sk_buff context{};
    context.ifindex = ifindex;
    context.cb[0] = metadata;
    context.cb[3] = frame.size() < taken_min ? static_cast<uint32_t>(frame.size()) : 0;
    __sk_buff after{};
    bpf_test_run_opts options{};
    options.sz = sizeof options;
    options.data_in = padded.data();
    options.data_size_in = static_cast<uint32_t>(padded.size());
    options.data_out = result.frame.data();
    options.data_size_out = static_cast<uint32_t>(result.frame.size());
    options.ctx_in = &context;
    options.ctx_size_in = sizeof context;
    options.ctx_out = &after;
    options.ctx_size_out = sizeof after;
    EXPECT_EQ(0, bpf_prog_test_run_opts(program, &options));
    result.forwarded = static_cast<int>(options.retval) != TC_ACT_SHOT;
    result.frame.resize(options.data_size_out);
    if (after.cb[0] != 0) {
        Bytes tag;
        append(tag, {after.cb[1], after.cb[2]});
        result.frame.insert(result.frame.begin() + 2 * mac_size, tag.begin(), tag.end());
    }
    return result;
}

EbpfRig::EbpfRig(bool metadata) : metadata_(metadata)
{
    restart_agent();
    probe_ = std::make_unique<Probe>();
}

EbpfRig::~EbpfRig()
{
    plane_.reset();
    std::vector<std::string> report;
    std::string why;
    EXPECT_TRUE(ebpf_detach(options(), report, why)) << why;
}

void EbpfRig::restart_agent()
{
    std::string why;
    plane_.reset();
    plane_ = EbpfPlane::open(loop_, options(), why);
    if (plane_ == nullptr) {
        throw std::runtime_error(why);
    }
    for (PlanePort port : ports_under_test) {
        port.interface = make_interface(port.phyid);
        port.ifx = port.phyid;
        EXPECT_TRUE(plane_->add_port(port, why)) << why;
    }
}

Sent EbpfRig::send(uint32_t phyid, const Bytes &frame)
{
    loop_.advance(0);
    const ProbeResult result = probe_->ingress(if_nametoindex(make_interface(phyid).c_str()), frame, metadata_);
    loop_.advance(0);
    return result.forwarded ? Sent{{uplink, result.frame}} : Sent{};
}

ProbeResult EbpfRig::leave(uint32_t phyid, const Bytes &frame)
{
    loop_.advance(0);
    return probe_->egress(if_nametoindex(make_interface(phyid).c_str()), frame, metadata_);
}

} // namespace vvl::fp::test
