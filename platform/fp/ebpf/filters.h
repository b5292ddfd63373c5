// The filters at an interface's hooks, as the kernel lists them. To read takes no privilege.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vvl::fp
{

struct Filter {
    uint16_t priority = 0; // a lower one comes first
    uint32_t handle = 0;
    std::string kind;        // "bpf", "u32", ...
    std::string name;        // that whoever attached a bpf filter gave it
    uint32_t program_id = 0; // of a bpf filter
};

// The filters of a hook, in the order in which frames pass them; parent: the
// handle of the hook. Those of chains that frames only jump to are left out. A
// hook that is missing has none. Returns false with the reason on failure.
bool list_filters(unsigned ifindex, uint32_t parent, std::vector<Filter> &filters, std::string &why);

} // namespace vvl::fp
