// The adapter between hiredis and the loop. hiredis asks for reading and
// writing one by one; the watch always follows what it asked for last. While a
// callback of hiredis runs the context is only marked for its end, hence the
// flag that says whether anybody still listens.
#include "platform/mom/redis/connection.h"

#include <hiredis/async.h>
#include <hiredis/hiredis.h>
#include <poll.h>

#include <utility>

namespace vvl::mom
{

struct RedisConnection::Impl {
    Impl(Loop &the_loop, std::function<void(const std::string &why)> on_lost) : loop(the_loop), lost(std::move(on_lost))
    {
    }

    void open(const RedisEndpoint &endpoint);
    void close();
    void want(unsigned event, bool on);
    void serve(unsigned ready);
    void fail(const std::string &why);
    void fail_later(const std::string &why);

    static Impl *of(const redisAsyncContext *context) { return static_cast<Impl *>(context->data); }
    static void on_reply(redisAsyncContext *context, void *reply, void *privdata);

    Loop &loop;
    std::function<void(const std::string &why)> lost; // empty once it was called
    redisAsyncContext *context = nullptr;             // null once the connection is lost
    LoopId watch = 0;
    unsigned events = 0;
    // Gone when this object is: hiredis may come back from a callback that destroyed it.
    std::shared_ptr<bool> alive = std::make_shared<bool>(true);
};

namespace
{

// One command's receiver; a subscription's lives as long as the connection.
struct Pending {
    RedisConnection::OnReply on_reply;
    bool is_subscription;
};

} // namespace

void RedisConnection::Impl::open(const RedisEndpoint &endpoint)
{
    context = endpoint.path.empty() ? redisAsyncConnect(endpoint.host.c_str(), endpoint.port)
                                    : redisAsyncConnectUnix(endpoint.path.c_str());
    if (context == nullptr || context->err != 0) {
        const std::string why = context != nullptr ? context->errstr : "out of memory";
        close();
        fail_later(why);
        return;
    }
    context->data = this;
    context->ev.data = this;
    context->ev.addRead = [](void *impl) { static_cast<Impl *>(impl)->want(fd_readable, true); };
    context->ev.delRead = [](void *impl) { static_cast<Impl *>(impl)->want(fd_readable, false); };
    context->ev.addWrite = [](void *impl) { static_cast<Impl *>(impl)->want(fd_writable, true); };
    context->ev.delWrite = [](void *impl) { static_cast<Impl *>(impl)->want(fd_writable, false); };
    watch = loop.watch_fd(context->c.fd, 0, [this](unsigned ready) { serve(ready); });
    redisAsyncSetConnectCallback(context, [](const redisAsyncContext *c, int status) {
        if (status != REDIS_OK && of(c) != nullptr) {
            of(c)->fail(c->errstr);
        }
    });
    redisAsyncSetDisconnectCallback(context, [](const redisAsyncContext *c, int) {
        if (of(c) != nullptr) {
            of(c)->fail(c->err != 0 ? c->errstr : "connection closed");
        }
    });
    want(fd_writable, true); // the end of connecting shows as that
}

// hiredis closes the descriptor, perhaps later, so it is unwatched first.
void RedisConnection::Impl::close()
{
    loop.unwatch_fd(watch);
    watch = 0;
    if (context != nullptr) {
        context->data = nullptr;
        context->ev = {};
        redisAsyncFree(std::exchange(context, nullptr));
    }
}

void RedisConnection::Impl::want(unsigned event, bool on)
{
    const unsigned wanted = on ? events | event : events & ~event;
    if (wanted != events) {
        events = wanted;
        loop.change_watch(watch, events);
    }
}

void RedisConnection::Impl::serve(unsigned ready)
{
    const std::weak_ptr<bool> still = alive;
    if (context != nullptr && (ready & fd_readable) != 0) {
        redisAsyncHandleRead(context);
    }
    if (!still.expired() && context != nullptr && (ready & fd_writable) != 0) {
        redisAsyncHandleWrite(context);
    }
}

void RedisConnection::Impl::fail(const std::string &why)
{
    // hiredis frees the context itself when this callback returns.
    loop.unwatch_fd(watch);
    watch = 0;
    context->data = nullptr;
    context->ev = {};
    context = nullptr;
    if (lost) {
        std::exchange(lost, nullptr)(why);
    }
}

void RedisConnection::Impl::fail_later(const std::string &why)
{
    loop.post([this, why, still = std::weak_ptr<bool>(alive)] {
        if (!still.expired() && lost) {
            std::exchange(lost, nullptr)(why);
        }
    });
}

void RedisConnection::Impl::on_reply(redisAsyncContext *context, void *reply, void *privdata)
{
    auto *pending = static_cast<Pending *>(privdata);
    const bool listening = of(context) != nullptr && reply != nullptr;
    if (pending->is_subscription && listening) {
        pending->on_reply(*static_cast<redisReply *>(reply));
        return;
    }
    const std::unique_ptr<Pending> owned(pending);
    if (listening) {
        owned->on_reply(*static_cast<redisReply *>(reply));
    }
}

RedisConnection::RedisConnection(Loop &loop, const RedisEndpoint &endpoint,
                                 std::function<void(const std::string &why)> lost)
    : impl_(std::make_unique<Impl>(loop, std::move(lost)))
{
    impl_->open(endpoint);
}

RedisConnection::~RedisConnection()
{
    impl_->close();
}

void RedisConnection::send(const std::vector<std::string_view> &arguments, OnReply on_reply)
{
    if (impl_->context == nullptr) {
        return;
    }
    std::vector<const char *> texts;
    std::vector<size_t> sizes;
    for (const std::string_view argument : arguments) {
        texts.push_back(argument.data());
        sizes.push_back(argument.size());
    }
    const bool is_subscription = arguments[0] == "SUBSCRIBE";
    auto pending = std::make_unique<Pending>(Pending{std::move(on_reply), is_subscription});
    if (redisAsyncCommandArgv(impl_->context, Impl::on_reply, pending.get(), static_cast<int>(texts.size()),
                              texts.data(), sizes.data()) == REDIS_OK) {
        static_cast<void>(pending.release()); // on_reply has it now
    }
}

int RedisConnection::descriptor() const
{
    return impl_->context != nullptr ? impl_->context->c.fd : -1;
}

short RedisConnection::poll_events() const
{
    return static_cast<short>(((impl_->events & fd_readable) ? POLLIN : 0) |
                              ((impl_->events & fd_writable) ? POLLOUT : 0));
}

void RedisConnection::serve(short ready)
{
    const bool failed = (ready & (POLLERR | POLLHUP | POLLNVAL)) != 0;
    impl_->serve((failed || (ready & POLLIN) ? fd_readable : 0) | (failed || (ready & POLLOUT) ? fd_writable : 0));
}

} // namespace vvl::mom
