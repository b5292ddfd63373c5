// The configuration parser on any text: it refuses in one line that names the
// file, or what it returns keeps the limits of its header.
#include "platform/host/config.h"
#include "tests/fuzz/byte_reader.h"

#include <set>

namespace vvl::test
{
namespace
{

void check(const host::HostConfig &config)
{
    std::set<uint32_t> ifxs;
    std::set<uint32_t> phyids;
    require(config.network.ports.size() <= host::port_count_max, "there are no more ports than the limit");
    for (const host::SwitchPort &port : config.network.ports) {
        require(port.ifx >= 1 && port.ifx <= host::ifx_max && ifxs.insert(port.ifx).second, "a port's ifx is its own");
        require(phyids.insert(port.phyid).second, "a port's phyid is its own");
        require(port.pvid >= 1 && port.pvid <= host::pvid_max, "a PVID is in range");
    }
    require(!config.network.module.empty(), "there is a module to load");
}

} // namespace
} // namespace vvl::test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace vvl::test;
    const std::string text = ByteReader({data, size}).text();
    vvl::host::HostConfig config;
    config.startup = "untouched";
    std::string why;
    if (vvl::host::parse_config(text, "/etc/fuzz.conf", config, why)) {
        check(config);
    } else {
        require(why.starts_with("/etc/fuzz.conf:") && why.find('\n') == std::string::npos, "a fault is one line");
        require(config.startup == "untouched", "a fault changes nothing");
    }
    return 0;
}
