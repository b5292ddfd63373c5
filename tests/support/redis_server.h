// A Redis server of a test's own: in a temporary folder, on a unix socket, with
// an append-only file. It ends with the object, and with the test's process.
#pragma once

#include "tests/support/child_process.h"

#include <optional>
#include <string>
#include <vector>

namespace vvl::test
{

class RedisServer
{
  public:
    // Further arguments as of the server's configuration: {"--port", "7001"}.
    // sentinel: lines of its configuration; with any, the server is a Sentinel.
    // Throws std::runtime_error where it does not answer within 10 s.
    explicit RedisServer(std::vector<std::string> arguments = {}, const std::vector<std::string> &sentinel = {});
    ~RedisServer(); // killed, and its folder removed
    RedisServer(const RedisServer &) = delete;
    RedisServer &operator=(const RedisServer &) = delete;

    void kill();    // SIGKILL; waits for its end
    void start();   // again, on what is in its folder; waits until it answers
    void pause();   // SIGSTOP
    void proceed(); // SIGCONT

    std::string socket() const { return folder_ + "/redis.sock"; }
    std::string address() const { return "unix:" + socket(); }
    const std::string &folder() const { return folder_; }

    // Runs redis-cli with these arguments, none of which has a quote in it, on the server; returns what it prints.
    std::string cli(const std::vector<std::string> &arguments) const;

  private:
    std::string folder_;
    std::vector<std::string> arguments_;
    bool is_sentinel_ = false;
    std::optional<ChildProcess> process_; // while it runs
};

// The server that the tests of one process share.
RedisServer &shared_redis_server();

} // namespace vvl::test
