// In a build without the eBPF plane the same functions report that it is missing.
#include "platform/host/plane_choice.h"

#ifdef VVLAN_HAS_EBPF
#    include "platform/fp/ebpf/counters.h"
#    include "platform/fp/ebpf/leave.h"
#    include "platform/fp/ebpf/plane_ebpf.h"
#endif
#include "platform/fp/soft/plane_soft.h"

namespace vvl::host
{

#ifdef VVLAN_HAS_EBPF

static std::unique_ptr<fp::DataPlane> open_ebpf(Loop &loop, const HostConfig &config, std::string &why)
{
    fp::EbpfOptions options = config.ebpf;
    options.is_agent = config.network.has_agent;
    options.is_sides = config.network.has_sides;
    return fp::EbpfPlane::open(loop, options, why);
}

std::unique_ptr<PortLinks> follow_plane_interfaces(Switch &target, std::string &why)
{
    return follow_links(target, why);
}

bool list_ebpf_features(const fp::EbpfOptions &options, std::vector<fp::EbpfFeature> &features, std::string &)
{
    features = fp::ebpf_features(options);
    return true;
}

bool detach_ebpf(const fp::EbpfOptions &options, std::vector<std::string> &report, std::string &why)
{
    return fp::ebpf_detach(options, report, why);
}

bool count_ebpf(const fp::EbpfOptions &options, std::vector<std::string> &report, std::string &why)
{
    return fp::ebpf_counters(options, report, why);
}

#else

static constexpr const char *without_ebpf = "this vvland was built without the eBPF plane";

static std::unique_ptr<fp::DataPlane> open_ebpf(Loop &, const HostConfig &, std::string &why)
{
    why = without_ebpf;
    return nullptr;
}

std::unique_ptr<PortLinks> follow_plane_interfaces(Switch &, std::string &why)
{
    why = without_ebpf;
    return nullptr;
}

bool list_ebpf_features(const fp::EbpfOptions &, std::vector<fp::EbpfFeature> &, std::string &why)
{
    why = without_ebpf;
    return false;
}

bool detach_ebpf(const fp::EbpfOptions &, std::vector<std::string> &, std::string &why)
{
    why = without_ebpf;
    return false;
}

bool count_ebpf(const fp::EbpfOptions &, std::vector<std::string> &, std::string &why)
{
    why = without_ebpf;
    return false;
}

#endif

bool plane_has_interfaces(const HostConfig &config)
{
    return config.plane == PlaneKind::ebpf;
}

std::unique_ptr<fp::DataPlane> make_plane(const HostConfig &config, Loop &loop, std::string &why)
{
    return config.plane == PlaneKind::ebpf ? open_ebpf(loop, config, why) : std::make_unique<fp::SoftPlane>(loop);
}

} // namespace vvl::host
