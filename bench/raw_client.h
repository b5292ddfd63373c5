// A client that uses hiredis alone: it writes with MULTI, SET, PUBLISH and EXEC,
// pipelined, which an atomic write with its notification takes without a function
// library.
//
// It does less than the store: it has no number from which a reader learns that
// it missed a change, no owners or stale marks, no limit, and its readers count
// messages instead of reading them.
#pragma once

#include <hiredis/hiredis.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace vvl::bench
{

constexpr size_t raw_key_count = 1'000;

struct ReplyFree {
    void operator()(redisReply *reply) const { freeReplyObject(reply); }
};
using ReplyPtr = std::unique_ptr<redisReply, ReplyFree>;

// How it writes.
struct Peer {
    const char *name;
    size_t gathered; // writes in a transaction; divides the number of writes
    bool is_counted; // each write adds one to a number
};
constexpr Peer peers[] = {{"raw", 1, false}, {"raw with a number", 1, true}, {"raw, 250 in a transaction", 250, false}};
constexpr const Peer &peer_of_bars = peers[0];

class Raw
{
  public:
    explicit Raw(const std::string &socket) : context_(redisConnectUnix(socket.c_str())) { run("SELECT 4"); }
    ~Raw() { redisFree(context_); }
    Raw(const Raw &) = delete;
    Raw &operator=(const Raw &) = delete;

    ReplyPtr next()
    {
        void *reply = nullptr;
        if (redisGetReply(context_, &reply) != REDIS_OK) {
            std::fprintf(stderr, "bench_store: %s\n", context_->errstr);
            std::exit(1);
        }
        return ReplyPtr(static_cast<redisReply *>(reply));
    }
    template <typename... Arguments> void send(const char *format, Arguments... arguments)
    {
        redisAppendCommand(context_, format, arguments...);
    }
    void run(const char *command)
    {
        send(command);
        next();
    }
    void write(const Peer &peer, size_t index, const std::string &value)
    {
        const std::string key = "raw:p_bridge.vvlan_port_cfg:" + std::to_string(index % raw_key_count);
        if (index % peer.gathered == 0) {
            send("MULTI");
        }
        send("SET %b %b", key.data(), key.size(), value.data(), value.size());
        if (peer.is_counted) {
            send("HINCRBY raw#state seq 1");
        }
        send("PUBLISH raw#4 %b", value.data(), value.size());
        if ((index + 1) % peer.gathered == 0) {
            send("EXEC");
        }
    }
    void take_write(const Peer &peer, size_t index)
    {
        const int replies = 2 + peer.is_counted + (index % peer.gathered == 0) + ((index + 1) % peer.gathered == 0);
        for (int i = 0; i < replies; i++) {
            next();
        }
    }

  private:
    redisContext *context_;
};

} // namespace vvl::bench
