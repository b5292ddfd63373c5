// Order matters twice. The watch subscribes to events before it queries the
// state, so no change is missed between the two. An event that is older than the
// answer does no harm, since the events that followed it come too. Where events
// were lost that is not true, so the socket is read empty before the query.
#include "platform/sides/link_watch.h"

#include "platform/base/log.h"

#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>

namespace vvl::sides
{

// A link as a message describes it.
struct LinkMessage {
    bool present = false;
    uint32_t ifindex = 0;
    std::string name;
    bool up = false;
};

namespace
{

constexpr size_t datagram_size_max = 32768; // the kernel fills no more of a larger buffer
constexpr timeval answer_limit = {1, 0};    // the kernel answers at once

// Switched on, with a carrier, and not held back, as 802.1X may do.
constexpr uint32_t flags_of_link_up = IFF_UP | IFF_LOWER_UP | IFF_RUNNING;

struct Buffer {
    alignas(nlmsghdr) uint8_t bytes[datagram_size_max];
};

std::string reason_of(const char *step)
{
    return std::string("link watch: ") + step + ": " + std::strerror(errno);
}

int take_name(const nlattr *attribute, void *name)
{
    if (mnl_attr_get_type(attribute) == IFLA_IFNAME) {
        if (mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) < 0) {
            return MNL_CB_ERROR;
        }
        *static_cast<std::string *>(name) = mnl_attr_get_str(attribute);
    }
    return MNL_CB_OK;
}

// The link that a message describes; none where it is about something else.
// Returns false for a malformed message.
bool decode(const nlmsghdr *message, std::optional<LinkMessage> &link)
{
    if (message->nlmsg_type != RTM_NEWLINK && message->nlmsg_type != RTM_DELLINK) {
        return true;
    }
    ifinfomsg info;
    if (mnl_nlmsg_get_payload_len(message) < sizeof(info)) {
        return false;
    }
    std::memcpy(&info, mnl_nlmsg_get_payload(message), sizeof(info));
    // A bridge reports its ports in the same messages; there, "deleted" is a port
    // that leaves the bridge.
    if (info.ifi_family != AF_UNSPEC) {
        return true;
    }
    LinkMessage read;
    if (info.ifi_index <= 0 || mnl_attr_parse(message, sizeof(info), take_name, &read.name) < 0 || read.name.empty()) {
        return false;
    }
    read.present = message->nlmsg_type == RTM_NEWLINK;
    read.ifindex = static_cast<uint32_t>(info.ifi_index);
    read.up = (info.ifi_flags & flags_of_link_up) == flags_of_link_up;
    link = std::move(read);
    return true;
}

// Calls each for the messages of a datagram. Returns false where other bytes
// are left.
template <typename Each> bool for_each_message(std::span<const uint8_t> datagram, Each each)
{
    const auto *message = reinterpret_cast<const nlmsghdr *>(datagram.data());
    int left = static_cast<int>(datagram.size());
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
        each(message);
    }
    return left <= 0;
}

bool send_query(mnl_socket *socket)
{
    Buffer buffer{};
    nlmsghdr *message = mnl_nlmsg_put_header(buffer.bytes);
    message->nlmsg_type = RTM_GETLINK;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
    mnl_attr_put_u32(message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    return mnl_socket_sendto(socket, message, message->nlmsg_len) >= 0;
}

// The answer to a query.
struct LinkList {
    std::vector<LinkMessage> links;
    uint64_t refused = 0;    // messages
    bool is_whole = true;    // false: the list changed meanwhile, so links may be missing
    bool is_over = false;    // the last message was there
    bool is_refused = false; // by the kernel
};

void take_listed(const nlmsghdr *message, LinkList &list)
{
    std::optional<LinkMessage> link;
    list.is_over |= message->nlmsg_type == NLMSG_DONE;
    list.is_refused |= message->nlmsg_type == NLMSG_ERROR;
    list.is_whole &= (message->nlmsg_flags & NLM_F_DUMP_INTR) == 0;
    if (!decode(message, link)) {
        list.refused++;
    } else if (link) {
        list.links.push_back(std::move(*link));
    }
}

bool read_list(mnl_socket *socket, LinkList &list, std::string &why)
{
    setsockopt(mnl_socket_get_fd(socket), SOL_SOCKET, SO_RCVTIMEO, &answer_limit, sizeof(answer_limit));
    if (!send_query(socket)) {
        why = reason_of("cannot query the links");
        return false;
    }
    Buffer buffer;
    while (!list.is_over) {
        const ssize_t size = mnl_socket_recvfrom(socket, buffer.bytes, sizeof(buffer.bytes));
        if (size <= 0) {
            why = reason_of("cannot read the links");
            return false;
        }
        const bool is_sound = for_each_message({buffer.bytes, static_cast<size_t>(size)},
                                               [&](const nlmsghdr *message) { take_listed(message, list); });
        if (!is_sound || list.is_refused) {
            why = "link watch: the kernel refused to list the links";
            return false;
        }
    }
    return true;
}

} // namespace

LinkWatch::LinkWatch(Loop &loop, const std::vector<std::string> &interfaces, Changed changed,
                     FiltersChanged filters_changed)
    : loop_(loop), changed_(std::move(changed)), filters_changed_(std::move(filters_changed))
{
    for (const std::string &interface : interfaces) {
        states_.emplace(interface, LinkState{});
    }
}

LinkWatch::~LinkWatch()
{
    loop_.cancel_timer(retry_timer_);
    loop_.unwatch_fd(watch_);
}

void LinkWatch::CloseSocket::operator()(mnl_socket *socket) const
{
    mnl_socket_close(socket);
}

bool LinkWatch::start(std::string &why)
{
    events_ = open_socket(SOCK_NONBLOCK, why);
    if (events_ == nullptr) {
        return false;
    }
    for (int group : {int{RTNLGRP_LINK}, int{RTNLGRP_TC}}) {
        const bool is_wanted = group == RTNLGRP_LINK || filters_changed_;
        if (is_wanted && mnl_socket_setsockopt(events_.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof(group)) < 0) {
            why = reason_of("cannot subscribe to events");
            return false;
        }
    }
    watch_ = loop_.watch_fd(mnl_socket_get_fd(events_.get()), fd_readable, [this](unsigned) { read_events(); });
    return query_all(why);
}

LinkState LinkWatch::state(const std::string &interface) const
{
    const auto found = states_.find(interface);
    return found != states_.end() ? found->second : LinkState{};
}

void LinkWatch::take(std::span<const uint8_t> datagram)
{
    const bool is_whole = for_each_message(datagram, [this](const nlmsghdr *message) {
        std::optional<LinkMessage> link;
        if (!decode(message, link)) {
            counters_.refused++;
        } else if (link) {
            apply(*link);
        } else {
            note_filters(message);
        }
    });
    if (!is_whole) {
        counters_.refused++;
    }
}

// ---- Sockets ----------------------------------------------------------------

LinkWatch::Socket LinkWatch::open_socket(int flags, std::string &why)
{
    Socket socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | flags));
    if (socket == nullptr || mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) < 0) {
        why = reason_of("cannot open a netlink socket");
        return nullptr;
    }
    return socket;
}

void LinkWatch::read_events()
{
    read_datagrams();
    tell_of_filters();
}

void LinkWatch::read_datagrams()
{
    Buffer buffer;
    for (int i = 0; i < link_events_per_turn_max; i++) {
        const ssize_t size = mnl_socket_recvfrom(events_.get(), buffer.bytes, sizeof(buffer.bytes));
        if (size >= 0) {
            take({buffer.bytes, static_cast<size_t>(size)});
        } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
            missed_ = true; // ENOBUFS: events came faster than they were read
        } else {
            if (missed_) {
                missed_ = false;
                query_again();
            }
            return;
        }
    }
}

void LinkWatch::query_again()
{
    loop_.cancel_timer(retry_timer_);
    retry_timer_ = 0;
    std::string why;
    if (!query_all(why)) {
        log_line(LogLevel::error, why);
        retry_timer_ = loop_.add_timer(link_query_retry_us, [this] { query_again(); });
    }
}

bool LinkWatch::query_all(std::string &why)
{
    counters_.queries++;
    for (int i = 0; i < link_query_tries_max; i++) {
        const Socket query = open_socket(0, why);
        LinkList list;
        if (query == nullptr || !read_list(query.get(), list, why)) {
            return false;
        }
        counters_.refused += list.refused;
        if (list.is_whole) {
            replace_all(list.links);
            return true;
        }
    }
    why = "link watch: the list of links changed each time it was read";
    return false;
}

// ---- The table --------------------------------------------------------------

void LinkWatch::replace_all(const std::vector<LinkMessage> &links)
{
    std::map<std::string, uint32_t> there;
    for (const LinkMessage &link : links) {
        there.emplace(link.name, link.ifindex);
    }
    for (const auto &[interface, state] : states_) {
        const auto found = there.find(interface);
        if (found == there.end() || found->second != state.ifindex) {
            set(interface, {});
        }
    }
    for (const LinkMessage &link : links) {
        apply(link);
    }
}

void LinkWatch::apply(const LinkMessage &link)
{
    const auto known = by_ifindex_.find(link.ifindex);
    if (known != by_ifindex_.end() && (!link.present || known->second != link.name)) {
        set(std::string(known->second), {});
    }
    if (link.present && states_.contains(link.name)) {
        set(link.name, {link.ifindex, link.up});
    }
}

void LinkWatch::note_filters(const nlmsghdr *message)
{
    constexpr uint16_t types[] = {RTM_NEWQDISC, RTM_DELQDISC, RTM_NEWTFILTER, RTM_DELTFILTER, RTM_DELCHAIN};
    if (!filters_changed_ || std::find(std::begin(types), std::end(types), message->nlmsg_type) == std::end(types) ||
        mnl_nlmsg_get_payload_len(message) < sizeof(tcmsg)) {
        return;
    }
    tcmsg info;
    std::memcpy(&info, mnl_nlmsg_get_payload(message), sizeof(info));
    const auto known = by_ifindex_.find(static_cast<uint32_t>(info.tcm_ifindex));
    if (known != by_ifindex_.end()) {
        noted_.insert(known->second);
    }
}

void LinkWatch::tell_of_filters()
{
    for (const std::string &interface : std::exchange(noted_, {})) {
        filters_changed_(interface);
    }
}

void LinkWatch::set(const std::string &interface, const LinkState &state)
{
    LinkState &current = states_.at(interface);
    if (current.ifindex != 0 && current.ifindex != state.ifindex) {
        by_ifindex_.erase(current.ifindex);
        current = {};
        changed_(interface, current);
    }
    if (current != state) {
        current = state;
        by_ifindex_[state.ifindex] = interface;
        changed_(interface, current);
    }
}

} // namespace vvl::sides
