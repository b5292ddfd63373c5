#include "platform/fp/ebpf/counters.h"

#include "platform/fp/ace.h"
#include "platform/fp/ebpf/attach.h"
#include "platform/fp/ebpf/states.h"

#include <array>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cstring>
#include <net/if.h>
#include <vector>

namespace vvl::fp
{
namespace
{

// Sums a value of words over the processors; zero where there is none.
template <typename Value> Value read_sum(const UniqueFd &map, uint32_t index)
{
    constexpr size_t words = sizeof(Value) / 8;
    static_assert(sizeof(std::array<uint64_t, words>) == sizeof(Value));
    std::vector<uint64_t> per_cpu(words * static_cast<size_t>(libbpf_num_possible_cpus()));
    std::array<uint64_t, words> total{};
    if (bpf_map_lookup_elem(map.get(), &index, per_cpu.data()) == 0) {
        for (size_t i = 0; i < per_cpu.size(); i++) {
            total[i % words] += per_cpu[i];
        }
    }
    Value value;
    std::memcpy(&value, total.data(), sizeof value);
    return value;
}

std::string addresses_text(const vv_share &others, const vv_share &voice)
{
    const auto text = [](const vv_share &share) {
        return ", " + std::to_string(share.used) + " of " + std::to_string(share.max);
    };
    return text(others) + " addresses" + text(voice) + " voice addresses";
}

std::string port_line(const KernelSide &side, uint32_t index)
{
    const vv_port &port = side.shared().ports[index];
    const vv_port_counters counters = read_port_counters(side, index);
    std::string line = name_of(port);
    const std::pair<const char *, uint64_t> columns[] = {{"in", counters.in},
                                                         {"out", counters.out},
                                                         {"tagged", counters.tagged},
                                                         {"remarked", counters.remarked},
                                                         {"dropped", counters.dropped},
                                                         {"trapped", counters.trapped},
                                                         {"not reported", counters.events_lost}};
    for (const auto &[word, count] : columns) {
        line += std::string(", ") + std::to_string(count) + " " + word;
    }
    return line + addresses_text(port.others, port.voice);
}

// Why the port is not served; empty where it is, or waits for its interface. The
// interfaces are those of this network namespace.
std::string trouble_of(const KernelSide &side, const vv_port &port)
{
    const unsigned ifindex = if_nametoindex(port.interface);
    std::string what;
    return ifindex == 0 || look_at_programs(ifindex, side, what) == Standing::complete ? "" : what;
}

} // namespace

vv_port_counters read_port_counters(const KernelSide &side, uint32_t index)
{
    return read_sum<vv_port_counters>(side.port_counters, index);
}

PortCounters user_counters(const vv_port_counters &counters)
{
    return {counters.in, counters.out, counters.trapped, counters.tagged, counters.remarked, counters.dropped};
}

uint64_t read_ace_counter(const KernelSide &side, Acl acl, uint64_t id)
{
    const auto index = static_cast<uint32_t>(VV_ACE_INDEX(static_cast<uint64_t>(acl), id));
    return id < VV_RANKS ? read_sum<uint64_t>(side.ace_counters, index) : 0;
}

bool ebpf_counters(const EbpfOptions &options, std::vector<std::string> &report, std::string &why)
{
    KernelSide side;
    if (!view_kernel_side(options.pin_folder, side, why)) {
        if (why.empty()) {
            why = options.pin_folder + ": nothing is pinned there";
        }
        return false;
    }
    const bool is_here = network_of_pins(options.pin_folder) == this_network();
    for (uint32_t index = 0; index < VV_PORTS_MAX; index++) {
        const vv_port &port = side.shared().ports[index];
        if (!is_configured(port)) {
            continue;
        }
        report.push_back(port_line(side, index));
        if (const std::string trouble = is_here ? trouble_of(side, port) : ""; !trouble.empty()) {
            report.back() += ", not served: " + trouble;
            why += (why.empty() ? "not served: " : ", ") + name_of(port);
        }
    }
    report.push_back("all ports" + addresses_text(side.shared().others, side.shared().voice));
    for (size_t i = 0; i < acl_count; i++) {
        const Acl acl = static_cast<Acl>(i);
        for (uint64_t id = 1; id <= FP_UDP_ACE_COUNT_MAX; id++) {
            if (const uint64_t frames = read_ace_counter(side, acl, id); frames != 0) {
                report.push_back("ACL " + std::string(app_type_of(acl)) + " ACE " + std::to_string(id) + ", " +
                                 std::to_string(frames) + " frames");
            }
        }
    }
    return why.empty();
}

} // namespace vvl::fp
