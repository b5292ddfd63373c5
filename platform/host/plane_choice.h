// Chooses the forwarding plane of a switch. Only this file knows both planes; the
// one in the kernel exists where the build has found its libraries.
#pragma once

#include "platform/fp/ebpf/features.h"
#include "platform/host/config.h"
#include "platform/host/port_links.h"

#include <memory>
#include <string>
#include <vector>

namespace vvl::host
{

// The plane of a configuration. Null with the reason in why.
std::unique_ptr<fp::DataPlane> make_plane(const HostConfig &config, Loop &loop, std::string &why);

// Whether the plane of a configuration gets its frames from network interfaces.
bool plane_has_interfaces(const HostConfig &config);

// Follows the interfaces; see follow_links(). Only for a plane that has some.
std::unique_ptr<PortLinks> follow_plane_interfaces(Switch &target, std::string &why);

// The functions of the eBPF plane. They also return false with the reason in why
// where this build does not have it.
bool list_ebpf_features(const fp::EbpfOptions &options, std::vector<fp::EbpfFeature> &features, std::string &why);
bool detach_ebpf(const fp::EbpfOptions &options, std::vector<std::string> &report, std::string &why);
bool count_ebpf(const fp::EbpfOptions &options, std::vector<std::string> &report, std::string &why);

} // namespace vvl::host
