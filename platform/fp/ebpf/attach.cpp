// A program of ours is recognised by its number where it is pinned, and by its
// name otherwise; to ask for the name takes CAP_SYS_ADMIN. Another program that
// has our place in the filters' order stays there.
#include "platform/fp/ebpf/attach.h"

#include <algorithm>
#include <array>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <cerrno>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <memory>

namespace vvl::fp
{
namespace
{

struct Direction {
    bpf_tc_attach_point point;
    const char *word;
    const char *program; // its name in the kernel
    UniqueFd KernelSide::*fd;
};

constexpr Direction directions[] = {
    {BPF_TC_INGRESS, "ingress", "vvlan_ingress", &KernelSide::ingress},
    {BPF_TC_EGRESS, "egress", "vvlan_egress", &KernelSide::egress},
};

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

// Who stands at our place; program_id: of what stands there.
Occupant occupant_of(unsigned ifindex, const KernelSide &side, const Direction &direction, uint32_t &program_id)
{
    const bpf_tc_hook hook = hook_of(ifindex, direction.point);
    bpf_tc_opts options = our_place();
    if (bpf_tc_query(&hook, &options) != 0) {
        return Occupant::nobody;
    }
    program_id = options.prog_id;
    if (std::ranges::find(side.program_ids, program_id) != side.program_ids.end()) {
        return Occupant::ours;
    }
    const UniqueFd fd(bpf_prog_get_fd_by_id(program_id));
    bpf_prog_info info{};
    uint32_t size = sizeof info;
    if (!fd || bpf_obj_get_info_by_fd(fd.get(), &info, &size) != 0) {
        return Occupant::stranger;
    }
    return std::strcmp(info.name, direction.program) == 0 ? Occupant::ours : Occupant::stranger;
}

bool attach_one(unsigned ifindex, const KernelSide &side, const Direction &direction, std::string &why)
{
    uint32_t attached = 0;
    const int fd = (side.*direction.fd).get();
    const Occupant occupant = occupant_of(ifindex, side, direction, attached);
    if (occupant == Occupant::stranger) {
        why = std::string("another program has the filter ") + direction.word + " priority " +
              std::to_string(VV_FILTER_PRIORITY) + " already";
        return false;
    }
    if (occupant == Occupant::ours && attached == id_of_program(fd)) {
        return true;
    }
    const bpf_tc_hook hook = hook_of(ifindex, direction.point);
    bpf_tc_opts options = our_place();
    options.prog_fd = fd;
    options.flags = occupant == Occupant::ours ? BPF_TC_F_REPLACE : 0;
    const int rv = bpf_tc_attach(&hook, &options);
    if (rv != 0) {
        why = std::string("the ") + direction.word + " program cannot be attached: " + error_text(rv);
    }
    return rv == 0;
}

struct SocketEnd {
    void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
};

// Whether filters stand at a hook of the interface; true also where that cannot be told.
bool has_filters(unsigned ifindex, uint32_t parent)
{
    const std::unique_ptr<mnl_socket, SocketEnd> socket(mnl_socket_open(NETLINK_ROUTE));
    std::array<char, 16384> buffer{};
    nlmsghdr *request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = RTM_GETTFILTER;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto *query = static_cast<tcmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(tcmsg)));
    query->tcm_ifindex = static_cast<int>(ifindex);
    query->tcm_parent = parent;
    if (socket == nullptr || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0 ||
        mnl_socket_sendto(socket.get(), request, request->nlmsg_len) < 0) {
        return true;
    }
    const auto stop_at_first = [](const nlmsghdr *, void *found) {
        *static_cast<bool *>(found) = true;
        return MNL_CB_STOP;
    };
    bool found = false;
    int rv = MNL_CB_OK;
    while (rv == MNL_CB_OK) {
        const ssize_t size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
        rv = size < 0 ? MNL_CB_ERROR
                      : mnl_cb_run(buffer.data(), static_cast<size_t>(size), 0, mnl_socket_get_portid(socket.get()),
                                   stop_at_first, &found);
    }
    return found || rv == MNL_CB_ERROR;
}

bool is_unused(unsigned ifindex)
{
    return !has_filters(ifindex, TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_INGRESS)) &&
           !has_filters(ifindex, TC_H_MAKE(TC_H_CLSACT, TC_H_MIN_EGRESS));
}

} // namespace

bool attach_programs(unsigned ifindex, const KernelSide &side, bool &made_clsact, std::string &why)
{
    bpf_tc_hook both = hook_of(ifindex, static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS));
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
                detach_programs(ifindex, side, true, ignored);
            }
            return false;
        }
    }
    return true;
}

Detached detach_programs(unsigned ifindex, const KernelSide &side, bool made_clsact, std::string &why)
{
    Detached result = Detached::nothing;
    for (const Direction &direction : directions) {
        uint32_t attached = 0;
        if (occupant_of(ifindex, side, direction, attached) != Occupant::ours) {
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
        bpf_tc_hook both = hook_of(ifindex, static_cast<bpf_tc_attach_point>(BPF_TC_INGRESS | BPF_TC_EGRESS));
        if (bpf_tc_hook_destroy(&both) == 0) {
            result = Detached::programs_and_clsact;
        }
    }
    return result;
}

} // namespace vvl::fp
