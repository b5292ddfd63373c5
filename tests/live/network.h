// A switch's surroundings on this machine: in the process's own network namespace
// (tests/support/own_network.h) a Linux bridge, access ports whose other ends
// send, and an uplink whose other end counts how every frame was treated. All of
// it ends with the process.
#pragma once

#include "platform/base/mac.h"
#include "tests/live/checker.h"

#include <atomic>
#include <bpf/libbpf.h>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace vvl::live
{

struct Treatment {
    unsigned vid = 0; // 0: no tag
    unsigned priority = 0;
    unsigned dscp = 0;
    auto operator<=>(const Treatment &) const = default;
};

std::string to_text(const Treatment &treatment); // "vlan 100 priority 6 dscp 46"

using Counts = std::map<std::pair<uint8_t, Treatment>, uint64_t>; // by sender and treatment

class Network
{
  public:
    // Ports 1 to port_count are the interfaces "acc1" and so on, the uplink is "uplink".
    explicit Network(unsigned port_count);

    Counts counts() const; // since the network was made
    static std::string sender_interface(unsigned port) { return "gen" + std::to_string(port); }

  private:
    std::unique_ptr<bpf_object, void (*)(bpf_object *)> checker_;
};

// One kind of sender: its frames come in untagged or in a VLAN, as UDP over IPv4.
struct Sender {
    uint8_t number;       // in the checker's counts
    unsigned vendor;      // first three bytes of the address
    unsigned port;        // where it sends
    unsigned tag_vid = 0; // 0: untagged
};

// Sends frames of all senders in turn, as fast as one thread can.
class Traffic
{
  public:
    explicit Traffic(const std::vector<Sender> &senders);
    ~Traffic();
    Traffic(const Traffic &) = delete;
    Traffic &operator=(const Traffic &) = delete;

    uint64_t stop(); // returns how many were sent
    // Waits until each sender has sent again, twice.
    void wait_for_rounds() const;

  private:
    struct Outlet;
    void run();

    std::map<unsigned, std::unique_ptr<Outlet>> outlets_; // by port
    uint64_t sent_ = 0;                                   // the thread's, until it has ended
    std::atomic<uint64_t> rounds_ = 0;                    // through all outlets
    std::atomic<bool> stopping_ = false;
    std::thread thread_;
};

} // namespace vvl::live
