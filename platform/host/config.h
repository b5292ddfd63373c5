// The host's configuration file.
//
// Lines are "key = value" under a "[section]" line; '#' at the start of a line
// or after a space begins a comment. Everything is checked before anything is
// used, and the first fault is reported as "FILE:LINE: reason".
#pragma once

#include "platform/base/log.h"
#include "platform/fp/ebpf/options.h"
#include "platform/host/switch.h"
#include "platform/mom/redis/address.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vvl::host
{

constexpr size_t config_size_max = 1 << 20;     // bytes of a file
constexpr size_t port_count_max = 4096;         // [port] sections
constexpr uint32_t ifx_max = 0x7fffffff;        // 1 to this
constexpr uint32_t phyid_max = 0xffffffff;      // 0 to this
constexpr uint16_t pvid_max = 4094;             // 1 to this
constexpr size_t config_path_length_max = 4095; // bytes of a path
constexpr size_t interface_length_max = 15;     // bytes of a name

enum class StoreKind : uint8_t { local, redis };
enum class PlaneKind : uint8_t { soft, ebpf };

struct HostConfig {
    SwitchConfig network; // module and ports
    LogLevel log_level = LogLevel::info;
    std::string log_file; // empty: standard error
    std::string startup;  // operator commands to run at the start; empty: none
    StoreKind store = StoreKind::local;
    mom::RedisOptions redis; // of StoreKind::redis
    PlaneKind plane = PlaneKind::soft;
    fp::EbpfOptions ebpf; // of PlaneKind::ebpf; every port needs an interface then
};

// Parses the text of a configuration. file: its path, for messages; relative
// paths in the text are relative to that file's folder. On failure why is one
// line and config is unchanged.
bool parse_config(std::string_view text, const std::string &file, HostConfig &config, std::string &why);

// Reads and parses a file. Otherwise as parse_config.
bool read_config(const std::string &file, HostConfig &config, std::string &why);

// The first port without an interface, which the eBPF plane needs; null where there is none.
const SwitchPort *port_without_interface(const HostConfig &config);

} // namespace vvl::host
