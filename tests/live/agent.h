// The agent as a process on the plane in the kernel, with its configuration on a
// Redis server, so that it can be killed and started again.
#pragma once

#include "tests/support/child_process.h"
#include "tests/support/redis_server.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vvl::live
{

// How many times as long as usual a wait may take: VVLAN_PATIENCE, for a machine
// that is emulated; 1 where it is not set.
int patience();

class Agent
{
  public:
    // The access ports 1 to port_count and the uplink of a Network.
    explicit Agent(unsigned port_count);
    ~Agent() { kill(); }
    Agent(const Agent &) = delete;
    Agent &operator=(const Agent &) = delete;

    void start();
    void kill(); // SIGKILL; waits for its end
    // Waits until it has taken over the plane. Milliseconds since start(), or
    // throws std::runtime_error with its last words where it does not in 10 s times patience().
    double wait_until_reconciled();

    // Writes the operator's lines into the store.
    void configure(const std::vector<std::string> &lines);
    // Does not wait; the next call does.
    void begin_to_configure(const std::string &line);

  private:
    using Clock = std::chrono::steady_clock;
    void finish_configuring();

    test::RedisServer redis_;
    std::string config_;
    std::optional<test::ChildProcess> process_; // while it runs
    std::optional<test::ChildProcess> control_; // the last vvlanctl, until it has been waited for
    int output_ = -1;                           // of the agent
    std::string words_;                         // that it has said
    Clock::time_point started_;
};

} // namespace vvl::live
