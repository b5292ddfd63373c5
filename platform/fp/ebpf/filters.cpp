#include "platform/fp/ebpf/filters.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <libmnl/libmnl.h>
#include <linux/pkt_cls.h>
#include <linux/rtnetlink.h>
#include <memory>
#include <sys/socket.h>
#include <sys/time.h>

namespace vvl::fp
{
namespace
{

constexpr size_t datagram_size_max = 32768;
constexpr timeval answer_limit = {1, 0}; // the kernel answers at once

struct SocketEnd {
    void operator()(mnl_socket *socket) const { mnl_socket_close(socket); }
};

int take_program(const nlattr *attribute, void *filter)
{
    auto &out = *static_cast<Filter *>(filter);
    const uint16_t type = mnl_attr_get_type(attribute);
    if (type == TCA_BPF_NAME && mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0) {
        out.name = mnl_attr_get_str(attribute);
    } else if (type == TCA_BPF_ID && mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0) {
        out.program_id = mnl_attr_get_u32(attribute);
    }
    return MNL_CB_OK;
}

struct Listed {
    Filter filter;
    uint32_t chain = 0;
};

int take_attribute(const nlattr *attribute, void *listed)
{
    auto &out = *static_cast<Listed *>(listed);
    switch (mnl_attr_get_type(attribute)) {
    case TCA_KIND:
        if (mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) >= 0) {
            out.filter.kind = mnl_attr_get_str(attribute);
        }
        break;
    case TCA_CHAIN:
        if (mnl_attr_validate(attribute, MNL_TYPE_U32) >= 0) {
            out.chain = mnl_attr_get_u32(attribute);
        }
        break;
    case TCA_OPTIONS:
        if (out.filter.kind == "bpf") { // the kind comes first
            mnl_attr_parse_nested(attribute, take_program, &out.filter);
        }
        break;
    default:
        break;
    }
    return MNL_CB_OK;
}

int take_filter(const nlmsghdr *message, void *filters)
{
    Listed listed;
    if (message->nlmsg_type != RTM_NEWTFILTER || mnl_nlmsg_get_payload_len(message) < sizeof(tcmsg)) {
        return MNL_CB_OK;
    }
    tcmsg header;
    std::memcpy(&header, mnl_nlmsg_get_payload(message), sizeof header);
    listed.filter.priority = static_cast<uint16_t>(TC_H_MAJ(header.tcm_info) >> 16);
    listed.filter.handle = header.tcm_handle;
    if (mnl_attr_parse(message, sizeof header, take_attribute, &listed) < 0) {
        return MNL_CB_ERROR;
    }
    // Each priority is also listed as a whole, without a handle.
    if (listed.chain == 0 && header.tcm_handle != 0) {
        static_cast<std::vector<Filter> *>(filters)->push_back(std::move(listed.filter));
    }
    return MNL_CB_OK;
}

} // namespace

bool list_filters(unsigned ifindex, uint32_t parent, std::vector<Filter> &filters, std::string &why)
{
    const std::unique_ptr<mnl_socket, SocketEnd> socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
    alignas(nlmsghdr) std::array<char, datagram_size_max> buffer{};
    nlmsghdr *request = mnl_nlmsg_put_header(buffer.data());
    request->nlmsg_type = RTM_GETTFILTER;
    request->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto *query = static_cast<tcmsg *>(mnl_nlmsg_put_extra_header(request, sizeof(tcmsg)));
    query->tcm_ifindex = static_cast<int>(ifindex);
    query->tcm_parent = parent;
    int rv = MNL_CB_ERROR;
    if (socket != nullptr && mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) >= 0 &&
        setsockopt(mnl_socket_get_fd(socket.get()), SOL_SOCKET, SO_RCVTIMEO, &answer_limit, sizeof answer_limit) == 0 &&
        mnl_socket_sendto(socket.get(), request, request->nlmsg_len) >= 0) {
        rv = MNL_CB_OK;
    }
    while (rv == MNL_CB_OK) {
        const ssize_t size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
        rv = size < 0 ? MNL_CB_ERROR
                      : mnl_cb_run(buffer.data(), static_cast<size_t>(size), 0, mnl_socket_get_portid(socket.get()),
                                   take_filter, &filters);
    }
    if (rv == MNL_CB_ERROR) {
        why = std::string("its filters cannot be listed: ") + std::strerror(errno);
    }
    return rv != MNL_CB_ERROR;
}

} // namespace vvl::fp
