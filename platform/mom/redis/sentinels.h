// Asks a group's Sentinels, one after the other, which server is its primary.
#pragma once

#include "platform/mom/redis/connection.h"

#include <memory>

namespace vvl::mom
{

class RedisSentinels
{
  public:
    // Asks at once. done is called from the loop, once: with the primary, or
    // with null and the reason where no Sentinel knows one. It may destroy this
    // object. The caller gives up on a silent Sentinel: next() asks the one after
    // it.
    using Found = std::function<void(const RedisEndpoint *primary, const std::string &why)>;
    RedisSentinels(Loop &loop, const RedisAddress &address, Found done);

    void next(const std::string &why);

    RedisConnection *connection() { return connection_.get(); } // to the one that is asked now

  private:
    void ask();

    Loop &loop_;
    const RedisAddress &address_;
    Found done_;
    size_t asked_ = 0; // which is asked now
    std::unique_ptr<RedisConnection> connection_;
};

} // namespace vvl::mom
