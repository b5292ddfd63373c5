#include "platform/mom/redis/peer.h"

#include "platform/mom/redis/library.h"
#include "platform/mom/redis/reply.h"
#include "platform/mom/redis/sentinels.h"

#include <poll.h>

#include <random>
#include <utility>

namespace vvl::mom
{
namespace
{

// The line "run_id:..." of INFO.
std::string run_id_of(const redisReply &reply)
{
    const std::string_view text = text_of(reply);
    const size_t begin = text.find("run_id:");
    return begin == std::string_view::npos ? std::string()
                                           : std::string(text.substr(begin + 7, text.find('\r', begin) - begin - 7));
}

// A text that no other client makes. The first one also names the data set.
std::string unique_text()
{
    std::mt19937_64 random{std::random_device{}()};
    const std::string first = std::to_string(random());
    return first + "-" + std::to_string(random());
}

} // namespace

RedisPeer::RedisPeer(Loop &loop, const RedisServer &server, uint32_t db, RedisPeerEvents &events)
    : loop_(loop), server_(server), db_(std::to_string(db)), events_(events)
{
    if (server.address.group.empty()) {
        connect_to(server.address.endpoints.front());
        return;
    }
    sentinels_ = std::make_unique<RedisSentinels>(loop, server.address,
                                                  [this](const RedisEndpoint *primary, const std::string &why) {
                                                      const auto asked = std::move(sentinels_); // ends behind this call
                                                      if (primary == nullptr) {
                                                          events_.peer_failed(why);
                                                      } else {
                                                          connect_to(*primary);
                                                      }
                                                  });
}

RedisPeer::~RedisPeer() = default;

void RedisPeer::call(const char *function, const std::vector<std::string_view> &arguments,
                     RedisConnection::OnReply on_reply)
{
    const std::string name = std::string(redis_library_name) + "_" + function;
    std::vector<std::string_view> words{"FCALL", name, "0", server_.prefix, db_};
    words.insert(words.end(), arguments.begin(), arguments.end());
    requests_->send(words, std::move(on_reply));
}

bool RedisPeer::skip_sentinel(const std::string &why)
{
    if (sentinels_ == nullptr) {
        return false;
    }
    sentinels_->next(why);
    return true;
}

void RedisPeer::serve(int timeout_ms)
{
    RedisConnection *connections[] = {requests_.get(), changes_.get(),
                                      sentinels_ != nullptr ? sentinels_->connection() : nullptr};
    std::vector<pollfd> fds;
    for (const RedisConnection *connection : connections) {
        fds.push_back({.fd = connection != nullptr ? connection->descriptor() : -1,
                       .events = connection != nullptr ? connection->poll_events() : short{0},
                       .revents = 0});
    }
    poll(fds.data(), fds.size(), timeout_ms);
    // Serving one may end them all.
    for (size_t i = 0; i < fds.size(); i++) {
        if (fds[i].revents != 0) {
            connections[i]->serve(fds[i].revents);
            return;
        }
    }
}

// ---- The steps ----

void RedisPeer::connect_to(const RedisEndpoint &endpoint)
{
    auto lost = [this, where = endpoint.text()](const std::string &why) { events_.peer_failed(where + ": " + why); };
    requests_ = std::make_unique<RedisConnection>(loop_, endpoint, lost);
    changes_ = std::make_unique<RedisConnection>(loop_, endpoint, lost);
    introduce();
    subscribe();
}

void RedisPeer::log_in(RedisConnection &connection)
{
    const RedisCredentials &who = server_.credentials;
    if (who.password.empty()) {
        return;
    }
    auto taken = [this](const redisReply &reply) { expect_good(reply, "login"); };
    if (who.user.empty()) {
        connection.send({"AUTH", who.password}, taken);
    } else {
        connection.send({"AUTH", who.user, who.password}, taken);
    }
}

void RedisPeer::expect_good(const redisReply &reply, const char *step)
{
    if (reply.type == REDIS_REPLY_ERROR) {
        events_.peer_failed(std::string(step) + ": " + std::string(text_of(reply)));
    }
}

void RedisPeer::introduce()
{
    log_in(*requests_);
    if (!server_.address.group.empty()) {
        // A Sentinel may name a primary that has just been demoted.
        requests_->send({"ROLE"}, [this](const redisReply &reply) {
            const bool is_primary =
                reply.type == REDIS_REPLY_ARRAY && reply.elements > 0 && text_of(*reply.element[0]) == "master";
            if (!is_primary) {
                events_.peer_failed("role: the server is not a primary");
            }
        });
    }
    requests_->send({"SELECT", db_}, [this](const redisReply &reply) { expect_good(reply, "select"); });
    requests_->send({"INFO", "server"}, [this](const redisReply &reply) { run_id_ = run_id_of(reply); });
    requests_->send({"FUNCTION", "LOAD", redis_library}, [this](const redisReply &reply) {
        if (text_of(reply).find("already exists") == std::string_view::npos) {
            expect_good(reply, "function library");
        }
    });
}

void RedisPeer::subscribe()
{
    log_in(*changes_);
    changes_->send({"SUBSCRIBE", server_.prefix + "#" + db_}, [this, is_first = true](const redisReply &reply) mutable {
        if (std::exchange(is_first, false) && reply.type == REDIS_REPLY_ARRAY && reply.elements == 3 &&
            text_of(*reply.element[0]) == "subscribe") {
            ask_state();
        } else {
            take_message(reply);
        }
    });
}

void RedisPeer::ask_state()
{
    fence_ = unique_text();
    call("state", {fence_}, [this](const redisReply &reply) {
        RedisStanding standing{run_id_, {}, 0};
        if (!read_state(reply, standing)) {
            const bool is_error = reply.type == REDIS_REPLY_ERROR;
            events_.peer_failed("state: " + (is_error ? std::string(text_of(reply)) : "malformed reply"));
            return;
        }
        standing_ = std::move(standing);
        finish_when_complete();
    });
}

void RedisPeer::take_message(const redisReply &reply)
{
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 3 || reply.element[2]->str == nullptr) {
        events_.peer_failed("malformed message");
        return;
    }
    const std::string_view text = text_of(*reply.element[2]);
    if (!text.starts_with("= ")) {
        events_.peer_message(text);
    } else if (!fence_.empty() && text.substr(2) == fence_) { // others are of other clients
        fence_.clear();
        finish_when_complete();
    }
}

void RedisPeer::finish_when_complete()
{
    if (standing_ && fence_.empty()) {
        const RedisStanding standing = *standing_;
        events_.peer_ready(standing);
    }
}

bool read_state(const redisReply &reply, RedisStanding &standing)
{
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 2 || reply.element[0]->type != REDIS_REPLY_INTEGER) {
        return false;
    }
    standing.data_set = text_of(*reply.element[1]);
    standing.number = static_cast<uint64_t>(reply.element[0]->integer);
    return true;
}

} // namespace vvl::mom
