// A link's life: connecting, being looked after, being lost and coming back.
//
// The channel is subscribed before the data set's state is read, so that no
// change falls between the two. Only where the same run of the same server
// holds the same data set at the same number, and nothing was asked of the link
// meanwhile, has nothing been missed: another run may have forgotten its last
// second and made other changes with the same numbers since.
#include "platform/mom/redis/link.h"

#include "platform/base/log.h"
#include "platform/mom/redis/library.h"
#include "platform/mom/redis/sentinels.h"

#include <hiredis/hiredis.h>

#include <algorithm>
#include <utility>

namespace vvl::mom
{
namespace
{

constexpr uint64_t us_per_ms = 1000;
constexpr uint64_t quiet_us_max = 1'000'000; // then the server is asked whether it is still the same

std::string_view text_of(const redisReply &reply)
{
    return reply.str != nullptr ? std::string_view(reply.str, static_cast<size_t>(reply.len)) : std::string_view();
}

// The line "run_id:..." of INFO.
std::string run_id_of(const redisReply &reply)
{
    const std::string_view text = text_of(reply);
    const size_t begin = text.find("run_id:");
    return begin == std::string_view::npos ? std::string()
                                           : std::string(text.substr(begin + 7, text.find('\r', begin) - begin - 7));
}

} // namespace

RedisLink::RedisLink(Loop &loop, const RedisServer &server, uint32_t db, const std::string &name,
                     RedisLinkEvents events)
    : loop_(loop), server_(server), db_(db), name_(name + ": database " + std::to_string(db)),
      db_text_(std::to_string(db)), events_(std::move(events)), random_(std::random_device{}())
{
}

RedisLink::~RedisLink()
{
    state_ = State::idle;
    events_.dropped = [] {}; // the session may be half gone
    drop(false);
    loop_.cancel_timer(retry_timer_);
    loop_.cancel_timer(check_timer_);
}

void RedisLink::start()
{
    if (state_ == State::idle) {
        connect();
        arm_check();
    }
}

bool RedisLink::wait_until_up()
{
    start();
    return wait_for([this] { return state_ == State::up || state_ == State::waiting || state_ == State::cut; }) &&
           is_up();
}

void RedisLink::cut()
{
    const bool was_up = is_up();
    state_ = State::cut;
    drop(false);
    loop_.cancel_timer(std::exchange(retry_timer_, 0));
    harmed_ = true;
    if (was_up) {
        told_lost_ = true;
        post([this] { events_.lost(); });
    }
}

void RedisLink::restore()
{
    if (state_ == State::cut) {
        connect();
    }
}

// ---- Connecting ----

void RedisLink::connect()
{
    state_ = State::connecting;
    step_us_ = loop_.now_us();
    settle_expectations();
    if (server_.address.group.empty()) {
        connect_to(server_.address.endpoints.front());
        return;
    }
    sentinels_ = std::make_unique<RedisSentinels>(loop_, server_.address,
                                                  [this](const RedisEndpoint *primary, const std::string &why) {
                                                      const auto asked = std::move(sentinels_); // ends behind this call
                                                      if (primary == nullptr) {
                                                          fail(why);
                                                      } else {
                                                          connect_to(*primary);
                                                      }
                                                  });
}

void RedisLink::connect_to(const RedisEndpoint &endpoint)
{
    auto lost = [this, where = endpoint.text()](const std::string &why) { fail(where + ": " + why); };
    requests_ = std::make_unique<RedisConnection>(loop_, endpoint, lost);
    changes_ = std::make_unique<RedisConnection>(loop_, endpoint, lost);
    introduce();
    subscribe();
}

void RedisLink::send_authentication(RedisConnection &connection)
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

void RedisLink::expect_good(const redisReply &reply, const char *step)
{
    if (reply.type == REDIS_REPLY_ERROR) {
        fail(std::string(step) + ": " + std::string(text_of(reply)));
    }
}

void RedisLink::introduce()
{
    send_authentication(*requests_);
    if (!server_.address.group.empty()) {
        // A Sentinel may name a primary that has just been demoted.
        requests_->send({"ROLE"}, [this](const redisReply &reply) {
            const bool is_primary =
                reply.type == REDIS_REPLY_ARRAY && reply.elements > 0 && text_of(*reply.element[0]) == "master";
            if (!is_primary) {
                fail("role: the server is not a primary");
            }
        });
    }
    requests_->send({"SELECT", db_text_}, [this](const redisReply &reply) { expect_good(reply, "select"); });
    requests_->send({"INFO", "server"}, [this](const redisReply &reply) { run_id_ = run_id_of(reply); });
    requests_->send({"FUNCTION", "LOAD", redis_library}, [this](const redisReply &reply) {
        if (text_of(reply).find("already exists") == std::string_view::npos) {
            expect_good(reply, "function library");
        }
    });
}

void RedisLink::subscribe()
{
    send_authentication(*changes_);
    changes_->send({"SUBSCRIBE", server_.prefix + "#" + db_text_}, [this](const redisReply &reply) {
        if (state_ == State::connecting && reply.type == REDIS_REPLY_ARRAY && reply.elements == 3 &&
            text_of(*reply.element[0]) == "subscribe") {
            fence_ = std::to_string(random_()) + "-" + std::to_string(random_());
            start_.reset();
            send_request("state", {fence_}, [this](const redisReply &answer) { read_state(answer); });
        } else {
            take_message(reply);
        }
    });
}

void RedisLink::read_state(const redisReply &reply)
{
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 2 || reply.element[0]->type != REDIS_REPLY_INTEGER) {
        fail("state: " + (reply.type == REDIS_REPLY_ERROR ? std::string(text_of(reply)) : "not what it should be"));
        return;
    }
    const std::string id(text_of(*reply.element[1]));
    const auto number = static_cast<uint64_t>(reply.element[0]->integer);
    if (state_ == State::connecting) {
        start_ = {id, number};
        come_up_when_complete();
    } else if (id != data_set_ || number < replied_) {
        fail("the data set was replaced");
    }
}

// With the state's answer, and with the message that the server published when it
// was asked: behind that one every change has a higher number, however the two
// connections take turns here.
void RedisLink::come_up_when_complete()
{
    if (start_ && fence_.empty()) {
        come_up(start_->first, start_->second);
    }
}

void RedisLink::come_up(const std::string &data_set, uint64_t number)
{
    const bool missed = harmed_ || run_id_ != run_id_before_ || data_set != data_set_ || number != received_;
    const bool first = !was_up_;
    data_set_ = data_set;
    run_id_before_ = run_id_;
    received_ = known_ = replied_ = number;
    std::erase_if(arrivals_, [&](const auto &arrival) { return arrival->number <= number; });
    for (const auto &arrival : arrivals_) { // these overtook the answer
        received_ += arrival->number == received_ + 1 ? arrival->count : 0;
    }
    state_ = State::up;
    was_up_ = true;
    harmed_ = failure_logged_ = false;
    backoff_ms_ = 0;
    settle_expectations();
    if (first) {
        post([this] { events_.up(); });
    } else if (told_lost_) {
        told_lost_ = false;
        if (missed) {
            watched_.clear();
        }
        log_line(LogLevel::info, name_ + " is back, " + (missed ? "changes may have been missed" : "nothing missed"));
        events_.back(missed);
    }
}

// ---- Being lost ----

void RedisLink::fail(const std::string &why)
{
    if (state_ != State::up && state_ != State::connecting) {
        return;
    }
    if (!failure_logged_) {
        failure_logged_ = true;
        log_line(LogLevel::warn, name_ + " is lost: " + why);
    }
    const bool was_up = is_up();
    state_ = State::waiting;
    drop(true);
    if (was_up) {
        told_lost_ = true;
        post([this] { events_.lost(); });
    }
    retry_later();
    if (was_up) {
        events_.failed();
    }
}

// Ends both connections. Requests on their way are never answered; changes that
// have come are handed on unless they are to be dropped too.
void RedisLink::drop(bool keep_changes)
{
    requests_.reset();
    changes_.reset();
    sentinels_.reset();
    harmed_ = harmed_ || unanswered_ > 0;
    first_index_ += sent_.size();
    sent_.clear();
    writes_ = {};
    events_.dropped();
    unanswered_ = 0;
    turn_++;
    hand_on_posted_ = false;
    checking_ = false;
    if (keep_changes) {
        hand_on_later();
    } else {
        arrivals_.clear();
    }
    known_ = received_;
    settle_expectations();
}

void RedisLink::retry_later()
{
    backoff_ms_ = std::clamp(backoff_ms_ * 2, redis_backoff_min_ms, redis_backoff_max_ms);
    // Up to a quarter more, so that the agents of a fleet do not come all at once.
    const uint64_t delay_us = backoff_ms_ * us_per_ms + random_() % (backoff_ms_ * us_per_ms / 4);
    retry_timer_ = loop_.add_timer(delay_us, [this] {
        retry_timer_ = 0;
        connect();
    });
}

void RedisLink::arm_check()
{
    if (loop_.has_real_clock()) {
        check_timer_ = loop_.add_timer(redis_check_interval_ms * us_per_ms, [this] {
            arm_check();
            look_after();
        });
    }
}

void RedisLink::look_after()
{
    const uint64_t now = loop_.now_us();
    const auto is_late = [&](uint64_t since_us) { return now - since_us > redis_answer_limit_ms * us_per_ms; };
    if (state_ == State::connecting && is_late(step_us_)) {
        if (sentinels_ != nullptr) {
            step_us_ = now;
            sentinels_->next("no answer in time");
        } else {
            fail("no answer in time");
        }
        return;
    }
    if (state_ != State::up) {
        return;
    }
    const auto oldest = std::ranges::find(sent_, false, &Request::answered);
    if ((oldest != sent_.end() && is_late(oldest->sent_us)) || (checking_ && is_late(step_us_))) {
        fail("no answer in time");
    } else if (known_ > received_ && is_late(known_us_)) {
        fail("a change that was made did not come");
    } else if (!checking_ && now - step_us_ > quiet_us_max) {
        checking_ = true;
        step_us_ = now;
        send_request("state", {}, [this](const redisReply &reply) {
            checking_ = false;
            step_us_ = loop_.now_us();
            read_state(reply);
        });
    }
}

} // namespace vvl::mom
