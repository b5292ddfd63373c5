// The port-id map: which interface index is which physical port, as the host's
// configuration says. Two indexes of the same size make it one to one.
#include "libddm.h"
#include "platform/host/services.h"

#include <unordered_map>

namespace vvl::host
{
namespace
{

constexpr int result_unknown = -7;

using Index = std::unordered_map<uint32_t, uint32_t>;

struct PortMap {
    Index phyid_by_ifx;
    Index ifx_by_phyid;
};

PortMap &port_map()
{
    static PortMap map;
    return map;
}

int look_up(const Index &index, uint32_t key, uint32_t *value)
{
    if (value == nullptr) {
        return result_invalid;
    }
    const auto found = index.find(key);
    if (found == index.end()) {
        return result_unknown;
    }
    *value = found->second;
    return 0;
}

} // namespace

bool set_port_map(std::span<const PortId> ports)
{
    PortMap map;
    for (const PortId &port : ports) {
        if (!map.phyid_by_ifx.emplace(port.ifx, port.phyid).second ||
            !map.ifx_by_phyid.emplace(port.phyid, port.ifx).second) {
            return false;
        }
    }
    port_map() = std::move(map);
    return true;
}

} // namespace vvl::host

int libddm_init(void *ctx, const char *name)
{
    return ctx != nullptr && name != nullptr ? 0 : vvl::host::result_invalid;
}

int libddm_get_phyid_by_ifx(uint32_t ifx, uint32_t *phyid)
{
    return vvl::host::look_up(vvl::host::port_map().phyid_by_ifx, ifx, phyid);
}

int libddm_get_ifx_by_phyid(uint32_t phyid, uint32_t *ifx)
{
    return vvl::host::look_up(vvl::host::port_map().ifx_by_phyid, phyid, ifx);
}
