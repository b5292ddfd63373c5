// A link's two connections to its server, one for requests and one for the
// channel of changes, from connecting until they are lost.
//
// Connecting has steps: a group's Sentinels are asked for the primary, both
// connections log in, the database is selected, the function library loaded and
// the channel subscribed. Then the data set's state is read. The channel comes
// before the state, so that no change falls between the two.
#pragma once

#include "platform/mom/redis/connection.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vvl::mom
{

class RedisSentinels;

// What all links of a store have in common.
struct RedisServer {
    RedisAddress address;
    RedisCredentials credentials;
    std::string prefix;
};

// Where a database stands: which run of the server holds which data set, and the
// number of its last change.
struct RedisStanding {
    std::string run_id;
    std::string data_set;
    uint64_t number = 0;
};

// Told from the loop, or while the peer is served without it. Each may destroy
// the peer.
class RedisPeerEvents
{
  public:
    virtual ~RedisPeerEvents() = default;

    // All steps are done. Once.
    virtual void peer_ready(const RedisStanding &standing) = 0;
    // A step failed, or a connection was lost. The peer is of no more use.
    virtual void peer_failed(const std::string &why) = 0;
    // A message of the channel, from the subscription on.
    virtual void peer_message(std::string_view text) = 0;
};

class RedisPeer
{
  public:
    // Begins to connect. All arguments outlive the peer.
    RedisPeer(Loop &loop, const RedisServer &server, uint32_t db, RedisPeerEvents &events);
    ~RedisPeer();
    RedisPeer(const RedisPeer &) = delete;
    RedisPeer &operator=(const RedisPeer &) = delete;

    // Calls a function of the library: its name without the library's, and what
    // follows prefix and database.
    void call(const char *function, const std::vector<std::string_view> &arguments, RedisConnection::OnReply on_reply);

    // Gives up the Sentinel that is asked now and asks the next one. False where
    // none is asked.
    bool skip_sentinel(const std::string &why);

    // Waits for the connections, timeout_ms at most, and serves one of them
    // without the loop.
    void serve(int timeout_ms);

  private:
    void connect_to(const RedisEndpoint &endpoint);
    void introduce();
    void subscribe();
    void log_in(RedisConnection &connection);
    void expect_good(const redisReply &reply, const char *step);
    void take_message(const redisReply &reply);
    void ask_state();
    void finish_when_complete();

    Loop &loop_;
    const RedisServer &server_;
    const std::string db_;
    RedisPeerEvents &events_;
    std::unique_ptr<RedisSentinels> sentinels_;
    std::unique_ptr<RedisConnection> requests_;
    std::unique_ptr<RedisConnection> changes_;
    std::string run_id_;
    // The data set's state is complete with its answer and with the message that the
    // server publishes for it: every change behind that message has a higher
    // number, whichever connection is served first.
    std::string fence_; // text of that message; empty before it is asked for, and when it has come
    std::optional<RedisStanding> standing_;
};

// The data set and the number in a reply to "state". False where it is malformed.
bool read_state(const redisReply &reply, RedisStanding &standing);

} // namespace vvl::mom
