// One connection to a Redis server: a hiredis context on the platform's loop.
//
// hiredis keeps no limits of its own and frees a context from inside its
// callbacks, so everything about a context's life is here: nothing is called
// any more once the connection is lost or destroyed.
#pragma once

#include "platform/base/loop.h"
#include "platform/mom/redis/address.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct redisReply;

namespace vvl::mom
{

class RedisConnection
{
  public:
    // reply lives until the call returns.
    using OnReply = std::function<void(const redisReply &reply)>;

    // Begins to connect. lost is called once, when the connection fails or
    // ends, and may destroy this object; it is not called from inside the
    // constructor, nor by the destructor. loop outlives the connection.
    RedisConnection(Loop &loop, const RedisEndpoint &endpoint, std::function<void(const std::string &why)> lost);
    ~RedisConnection();
    RedisConnection(const RedisConnection &) = delete;
    RedisConnection &operator=(const RedisConnection &) = delete;

    // Sends a command; on_reply is called with its reply, or with each message
    // of a subscription. Nothing is called where the connection is lost first.
    void send(const std::vector<std::string_view> &arguments, OnReply on_reply);

    // For waiting without the loop: what is waited for, as of poll(2), and what
    // to do when it is there.
    int descriptor() const;
    short poll_events() const;
    void serve(short ready);

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace vvl::mom
