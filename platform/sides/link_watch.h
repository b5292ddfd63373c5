// The links of named network interfaces, as the kernel reports them: whether an
// interface of that name exists, and whether its link is up.
//
// Events come over one netlink socket. The state of all links is queried over
// another one, at the start and whenever events may have been lost. An interface
// is known by its name. One that was deleted and made again, moved to another
// namespace or renamed is a different interface, and the old one is reported
// gone first. The interfaces are those of the namespace in which start() was
// called.
//
// Limits: after a burst of events that the socket has no room for, the state is
// queried again, so a change that was undone meanwhile is not seen.
#pragma once

#include "platform/base/loop.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

struct mnl_socket;
struct nlmsghdr;

namespace vvl::sides
{

struct LinkMessage;

constexpr int link_events_per_turn_max = 64;        // datagrams that are read before other work is done
constexpr int link_query_tries_max = 8;             // a list that changes while it is read is read again
constexpr uint64_t link_query_retry_us = 1'000'000; // after a query that failed

struct LinkState {
    uint32_t ifindex = 0; // 0: there is no interface of this name
    bool up = false;      // switched on, with a carrier, and free to carry frames
    bool operator==(const LinkState &) const = default;
};

struct LinkCounters {
    uint64_t refused = 0; // malformed messages, which were skipped
    uint64_t queries = 0; // how often the state of all links was queried
};

class LinkWatch
{
  public:
    // Called for each change. Must not destroy the watch.
    using Changed = std::function<void(const std::string &interface, const LinkState &state)>;

    // Called after queue disciplines or filters of an interface have changed, once
    // for many changes; some calls may be missing. Must not destroy the watch.
    using FiltersChanged = std::function<void(const std::string &interface)>;

    // The loop outlives the watch. Nothing is watched before start().
    LinkWatch(Loop &loop, const std::vector<std::string> &interfaces, Changed changed,
              FiltersChanged filters_changed = {});
    ~LinkWatch();

    LinkWatch(const LinkWatch &) = delete;
    LinkWatch &operator=(const LinkWatch &) = delete;

    // Reports every interface that exists before it returns; later changes are
    // reported from the loop. On failure why names the step and the reason. Once.
    bool start(std::string &why);

    // What was reported last; no interface for a name that is not watched.
    LinkState state(const std::string &interface) const;

    const LinkCounters &counters() const { return counters_; }

    // Handles a datagram of events, aligned as struct nlmsghdr. The watch calls it
    // with what the kernel sends.
    void take(std::span<const uint8_t> datagram);

  private:
    struct CloseSocket {
        void operator()(mnl_socket *socket) const;
    };
    using Socket = std::unique_ptr<mnl_socket, CloseSocket>;

    static Socket open_socket(int flags, std::string &why);

    void read_events();
    void read_datagrams();
    bool query_all(std::string &why);
    void query_again();
    void replace_all(const std::vector<LinkMessage> &links);
    void apply(const LinkMessage &link);
    void note_filters(const nlmsghdr *message);
    void tell_of_filters();
    void set(const std::string &interface, const LinkState &state);

    Loop &loop_;
    Changed changed_;
    FiltersChanged filters_changed_;          // may be empty
    std::set<std::string> noted_;             // interfaces whose filters have changed; told of when the socket is empty
    std::map<std::string, LinkState> states_; // of every watched name
    std::map<uint32_t, std::string> by_ifindex_; // the watched names that have an interface
    Socket events_;
    LoopId watch_ = 0;
    LoopId retry_timer_ = 0;
    bool missed_ = false; // events; a query follows when the socket is empty
    LinkCounters counters_;
};

} // namespace vvl::sides
