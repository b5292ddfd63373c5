// A Sentinel needs no login here: credentials of the group's servers are not
// its own, and it answers this one question to everybody.
#include "platform/mom/redis/sentinels.h"

#include <hiredis/hiredis.h>

#include <utility>

namespace vvl::mom
{
namespace
{

// {HOST, PORT} as bulk texts.
bool read_primary(const redisReply &reply, RedisEndpoint &primary)
{
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 2 || reply.element[0]->type != REDIS_REPLY_STRING ||
        reply.element[1]->type != REDIS_REPLY_STRING) {
        return false;
    }
    const unsigned long port = std::strtoul(reply.element[1]->str, nullptr, 10);
    primary.host.assign(reply.element[0]->str, reply.element[0]->len);
    primary.port = static_cast<uint16_t>(port);
    return port >= 1 && port <= 65535;
}

} // namespace

RedisSentinels::RedisSentinels(Loop &loop, const RedisAddress &address, Found done)
    : loop_(loop), address_(address), done_(std::move(done))
{
    ask();
}

void RedisSentinels::ask()
{
    connection_ = std::make_unique<RedisConnection>(loop_, address_.endpoints[asked_],
                                                    [this](const std::string &why) { next(why); });
    connection_->send({"SENTINEL", "get-master-addr-by-name", address_.group}, [this](const redisReply &reply) {
        RedisEndpoint primary;
        if (read_primary(reply, primary)) {
            const Found done = std::exchange(done_, nullptr);
            done(&primary, {});
        } else {
            next("it does not know \"" + address_.group + "\"");
        }
    });
}

void RedisSentinels::next(const std::string &why)
{
    const std::string reason = "Sentinel " + address_.endpoints[asked_].text() + ": " + why;
    if (++asked_ < address_.endpoints.size()) {
        ask();
        return;
    }
    asked_--;
    const Found done = std::exchange(done_, nullptr);
    done(nullptr, reason);
}

} // namespace vvl::mom
