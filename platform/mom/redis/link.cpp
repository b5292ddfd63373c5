// A link's life: connecting, being looked after, being lost and coming back.
//
// Only where the same run of the same server holds the same data set at the same
// number, and nothing was asked of the link meanwhile, has nothing been missed:
// another run may have forgotten its last second and made other changes with the
// same numbers since.
#include "platform/mom/redis/link.h"

#include "platform/base/log.h"
#include "platform/mom/redis/reply.h"

#include <algorithm>
#include <utility>

namespace vvl::mom
{
namespace
{

constexpr uint64_t us_per_ms = 1000;
constexpr uint64_t quiet_us_max = 1'000'000; // then the server is asked whether it is still the same
constexpr char replaced[] = "the data set was replaced";
constexpr char malformed_message[] = "malformed message";

} // namespace

RedisLink::RedisLink(Loop &loop, const RedisServer &server, uint32_t db, const std::string &name,
                     RedisLinkEvents events)
    : loop_(loop), server_(server), db_(db), name_(name + ": database " + std::to_string(db)),
      events_(std::move(events)), random_(std::random_device{}()), order_(db)
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
        tell_lost();
    }
}

void RedisLink::restore()
{
    if (state_ == State::cut) {
        connect();
    }
}

void RedisLink::connect()
{
    state_ = State::connecting;
    heard_us_ = loop_.now_us();
    order_.hold();
    settle_expectations();
    RedisPeerEvents &events = *this; // which others cannot see
    peer_ = std::make_unique<RedisPeer>(loop_, server_, db_, events);
}

void RedisLink::peer_ready(const RedisStanding &standing)
{
    const bool missed = harmed_ || standing.run_id != standing_.run_id || standing.data_set != standing_.data_set ||
                        standing.number != order_.received();
    const bool first = !was_up_;
    standing_ = standing;
    order_.start(standing.number);
    state_ = State::up;
    was_up_ = true;
    harmed_ = failure_logged_ = false;
    backoff_ms_ = 0;
    settle_expectations();
    if (first) {
        post([this] { events_.up(); });
    } else if (std::exchange(told_lost_, false)) {
        if (missed) {
            order_.unwatch_all();
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
    if (!std::exchange(failure_logged_, true)) {
        log_line(LogLevel::warn, name_ + " is lost: " + why);
    }
    const bool was_up = is_up();
    state_ = State::waiting;
    drop(true);
    if (was_up) {
        tell_lost();
    }
    retry_later();
    if (was_up) {
        events_.failed();
    }
}

// Ends both connections, and with them the requests on their way.
void RedisLink::drop(bool keep_changes)
{
    peer_.reset();
    harmed_ = harmed_ || order_.unanswered() > 0;
    order_.stop(keep_changes);
    writes_.clear();
    events_.dropped();
    turn_++;
    hand_on_posted_ = false;
    checking_ = false;
    if (keep_changes) {
        hand_on_later();
    }
    settle_expectations();
}

void RedisLink::tell_lost()
{
    told_lost_ = true;
    post([this] { events_.lost(); });
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

// ---- Looking after the server ----

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
    const auto is_late = [&](std::optional<uint64_t> since_us) {
        return since_us && now - *since_us > redis_answer_limit_ms * us_per_ms;
    };
    if (state_ == State::connecting && is_late(heard_us_)) {
        heard_us_ = now;
        if (!peer_->skip_sentinel("no answer in time")) {
            fail("no answer in time");
        }
    } else if (state_ != State::up) {
        return;
    } else if (is_late(order_.oldest_unanswered_us()) || (checking_ && is_late(heard_us_))) {
        fail("no answer in time");
    } else if (is_late(order_.awaited_since_us())) {
        fail("a change that was made did not come");
    } else if (!checking_ && now - heard_us_ > quiet_us_max) {
        check_data_set();
    }
}

void RedisLink::check_data_set()
{
    checking_ = true;
    heard_us_ = loop_.now_us();
    peer_->call("state", {}, [this](const redisReply &reply) {
        checking_ = false;
        heard_us_ = loop_.now_us();
        RedisStanding standing;
        if (!read_state(reply, standing)) {
            fail("state: " + (reply.type == REDIS_REPLY_ERROR ? std::string(text_of(reply)) : "malformed reply"));
        } else if (standing.data_set != standing_.data_set || !order_.is_in_line(standing.number)) {
            fail(replaced);
        }
    });
}

// ---- The order of replies and changes ----

void RedisLink::peer_message(std::string_view text)
{
    switch (order_.take_message(text)) {
    case RedisOrder::Taken::malformed:
        fail(malformed_message);
        return;
    case RedisOrder::Taken::replaced:
        fail(replaced);
        return;
    case RedisOrder::Taken::missed:
        fail("a change was missed");
        return;
    case RedisOrder::Taken::good:
        break;
    }
    settle_expectations();
    hand_on_later();
}

void RedisLink::expect_change(uint64_t number)
{
    if (is_up() && order_.expect(number, loop_.now_us())) {
        settle_expectations();
    }
}

void RedisLink::settle_expectations()
{
    int expected = state_ == State::connecting ? 1 : 0;
    if (is_up()) {
        expected += order_.awaited_since_us() ? 1 : 0;
        expected += static_cast<int>(order_.unanswered());
    }
    if (expected != expected_) {
        loop_.expect_answers(expected - expected_);
        expected_ = expected;
    }
}

void RedisLink::post(std::function<void()> task)
{
    loop_.post([still = std::weak_ptr<bool>(alive_), task = std::move(task)] {
        if (!still.expired()) {
            task();
        }
    });
}

void RedisLink::hand_on_later()
{
    if (!std::exchange(hand_on_posted_, true)) {
        post([this, turn = turn_] {
            if (turn == turn_) {
                hand_on_posted_ = false;
                hand_on();
            }
        });
    }
}

// Each of those that are called may destroy the link.
void RedisLink::hand_on()
{
    const std::weak_ptr<bool> still = alive_;
    while (!still.expired()) {
        const RedisOrder::Next next = order_.next();
        if (!next) {
            return;
        }
        if (next.is_malformed) {
            fail(malformed_message);
        } else if (next.change) {
            events_.changed(*next.change);
        } else if (next.request->taken) {
            next.request->taken();
        } else if (next.request->done) {
            next.request->done(next.request->result);
        }
    }
}

} // namespace vvl::mom
