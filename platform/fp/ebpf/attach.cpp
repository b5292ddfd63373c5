// A program of ours is recognised by the name of its filter, which libbpf makes of
// the program's name when it attaches it. The filter has it whatever has become of
// the pins and the agent since, and everybody may read it; to ask the program
// itself takes CAP_SYS_ADMIN. Another program that has our place in the filters'
// order stays there.
#include "platform/fp/ebpf/attach.h"

#include "platform/fp/ebpf/filters.h"

#include <algorithm>
#include <bpf/libbpf.h>
#include <cerrno>
#include <linux/pkt_sched.h>

namespace vvl::fp
{
namespace
{

struct Direction {
    bpf_tc_attach_point point;
    uint32_t parent; // the handle of the hook
    const char *word;
    const char *filter_name; // how the name of its filter begins
    UniqueFd KernelSide::*fd;
};

constexpr Direction directions[] = {
    {BPF_TC_INGRESS, TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS), "ingress", "vvlan_ingress:", &KernelSide::ingress},
    {BPF_TC_EGRESS, TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_EGRESS), "egress", "vvlan_egress:", &KernelSide::egress},
};
constexpr auto both_points = static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS);

bpf_tc_hook hook_of(unsigned ifindex, bpf_tc_attach_point point)
{
    bpf_tc_hook hook{};
    hook.sz = sizeof hook;
    hook.ifindex = static_cast<int>(ifindex);
    hook.attach_point = point;
    return hook;
}

bpf_tc_opts our_place()
{
    bpf_tc_opts options{};
    options.sz = sizeof options;
    options.handle = VV_FILTER_HANDLE;
    options.priority = VV_FILTER_PRIORITY;
    return options;
}

enum class Occupant { nobody, ours, stranger };

// A hook of an interface, as far as our place in it is concerned.
struct Hook {
    Occupant occupant = Occupant::nobody; // of our place
    uint32_t program_id = 0;              // of the occupant
    std::string in_front;                 // a filter that frames pass before; empty: none
};

bool look_at_hook(unsigned ifindex, const Direction &direction, Hook &hook, std::string &why)
{
    std::vector<Filter> filters;
    if (!list_filters(ifindex, direction.parent, filters, why)) {
        return false;
    }
    for (const Filter &filter : filters) {
        const bool has_our_priority = filter.priority == VV_FILTER_PRIORITY;
        if (has_our_priority && hook.occupant != Occupant::ours) { // one priority is of one kind of filters
            const bool is_ours = filter.handle == VV_FILTER_HANDLE && filter.name.starts_with(direction.filter_name);
            hook.occupant = is_ours ? Occupant::ours : Occupant::stranger;
            hook.program_id = filter.program_id;
        }
        if (filter.priority < VV_FILTER_PRIORITY && hook.in_front.empty()) {
            hook.in_front = filter.kind + " filter with priority " + std::to_string(filter.priority);
        }
    }
    return true;
}

std::string place_is_taken(const Direction &direction)
{
    return std::string("another program has the filter ") + direction.word + " priority " +
           std::to_string(VV_FILTER_PRIORITY) + " already";
}

bool attach_one(unsigned ifindex, const KernelSide &side, const Direction &direction, std::string &why)
{
    Hook found;
    const int fd = (side.*direction.fd).get();
    if (!look_at_hook(ifindex, direction, found, why)) {
        return false;
    }
    if (found.occupant == Occupant::stranger) {
        why = place_is_taken(direction);
        return false;
    }
    if (found.occupant == Occupant::ours && found.program_id == id_of_program(fd)) {
        return true;
    }
    const bpf_tc_hook hook = hook_of(ifindex, direction.point);
    bpf_tc_opts options = our_place();
    options.prog_fd = fd;
    options.flags = found.occupant == Occupant::ours ? BPF_TC_F_REPLACE : 0;
    const int rv = bpf_tc_attach(&hook, &options);
    if (rv != 0) {
        why = std::string("the ") + direction.word + " program cannot be attached: " + error_text(rv);
    }
    return rv == 0;
}

// Whether no filter stands at the interface's hooks; false also where that cannot be told.
bool is_unused(unsigned ifindex)
{
    std::string ignored;
    return std::ranges::all_of(directions, [&](const Direction &direction) {
        std::vector<Filter> filters;
        return list_filters(ifindex, direction.parent, filters, ignored) && filters.empty();
    });
}

} // namespace

bool attach_programs(unsigned ifindex, const KernelSide &side, bool &made_clsact, std::string &why)
{
    bpf_tc_hook both = hook_of(ifindex, both_points);
    const int rv = bpf_tc_hook_create(&both);
    if (rv != 0 && rv != -EEXIST) {
        why = "no clsact queue discipline can be made: " + error_text(rv);
        return false;
    }
    made_clsact = rv == 0;
    for (const Direction &direction : directions) {
        if (!attach_one(ifindex, side, direction, why)) {
            std::string ignored;
            if (made_clsact) {
                detach_programs(ifindex, true, ignored);
            }
            return false;
        }
    }
    return true;
}

Standing look_at_programs(unsigned ifindex, const KernelSide &side, std::string &what)
{
    Standing standing = Standing::complete;
    for (const Direction &direction : directions) {
        Hook hook;
        if (!look_at_hook(ifindex, direction, hook, what)) {
            return Standing::blocked;
        }
        if (hook.occupant == Occupant::stranger) {
            what = place_is_taken(direction);
            return Standing::blocked;
        }
        const bool is_there = hook.occupant == Occupant::ours;
        if (!is_there || hook.program_id != id_of_program((side.*direction.fd).get())) {
            what = std::string("the ") + direction.word + " program is " + (is_there ? "another version" : "missing");
            standing = Standing::lost;
        } else if (!hook.in_front.empty() && standing == Standing::complete) {
            what = "a " + hook.in_front + " comes before the " + direction.word + " program";
            standing = Standing::blocked;
        }
    }
    return standing;
}

std::vector<uint32_t> programs_at(unsigned ifindex)
{
    std::vector<uint32_t> ids;
    for (const Direction &direction : directions) {
        Hook hook;
        std::string ignored;
        if (look_at_hook(ifindex, direction, hook, ignored) && hook.occupant == Occupant::ours) {
            ids.push_back(hook.program_id);
        }
    }
    return ids;
}

Detached detach_programs(unsigned ifindex, bool made_clsact, std::string &why)
{
    Detached result = Detached::nothing;
    for (const Direction &direction : directions) {
        Hook found;
        if (!look_at_hook(ifindex, direction, found, why)) {
            return Detached::failed;
        }
        if (found.occupant != Occupant::ours) {
            continue;
        }
        const bpf_tc_hook hook = hook_of(ifindex, direction.point);
        const bpf_tc_opts options = our_place();
        if (const int rv = bpf_tc_detach(&hook, &options); rv != 0) {
            why = std::string("the ") + direction.word + " program cannot be detached: " + error_text(rv);
            return Detached::failed;
        }
        result = Detached::programs;
    }
    if (made_clsact && is_unused(ifindex)) {
        bpf_tc_hook both = hook_of(ifindex, both_points);
        if (bpf_tc_hook_destroy(&both) == 0) {
            result = Detached::programs_and_clsact;
        }
    }
    return result;
}

} // namespace vvl::fp
