#include "platform/mom/redis/order.h"

#include <algorithm>
#include <utility>

namespace vvl::mom
{

// ---- The line of changes ----

void RedisOrder::hold()
{
    is_holding_ = true;
}

void RedisOrder::start(uint64_t number)
{
    is_holding_ = false;
    received_ = known_ = replied_ = number;
    std::erase_if(arrivals_, [&](const auto &arrival) { return arrival->message.number <= number; });
    for (const auto &arrival : arrivals_) { // these came before the answer that carried the number
        received_ += arrival->message.number == received_ + 1 ? arrival->message.count : 0;
    }
}

void RedisOrder::stop(bool keep_changes)
{
    is_holding_ = false;
    first_index_ += requests_.size();
    requests_.clear();
    unanswered_ = 0;
    known_ = received_;
    if (!keep_changes) {
        arrivals_.clear();
    }
}

// ---- Requests ----

std::optional<uint64_t> RedisOrder::oldest_unanswered_us() const
{
    const auto oldest = std::ranges::find(requests_, false, &RedisRequest::answered);
    return oldest == requests_.end() ? std::optional<uint64_t>() : oldest->sent_us;
}

void RedisOrder::add(uint64_t now_us, Done done)
{
    requests_.push_back({.sent_us = now_us, .done = std::move(done), .taken = {}});
    unanswered_++;
}

bool RedisOrder::take_number(uint64_t number)
{
    if (!is_in_line(number)) {
        return false;
    }
    replied_ = number;
    return true;
}

RedisRequest &RedisOrder::answer(uint64_t request, uint64_t number)
{
    RedisRequest &answered = requests_[request - first_index_];
    answered.answered = true;
    answered.number = number;
    unanswered_--;
    return answered;
}

int RedisOrder::take_refusal(uint64_t request)
{
    if (request < first_index_ || request >= next_request()) {
        return TQ_MOM_OK; // the link was lost meanwhile
    }
    RedisRequest &known = requests_[request - first_index_];
    if (known.answered && known.result != TQ_MOM_OK) {
        known.done = {};
    }
    return known.answered ? known.result : TQ_MOM_OK;
}

// ---- Changes ----

RedisOrder::Taken RedisOrder::take_message(std::string_view text)
{
    auto arrival = std::make_shared<Arrival>();
    arrival->behind = next_request();
    if (!read_message(db_, text, arrival->message)) {
        return Taken::malformed;
    }
    if (!is_holding_) {
        if (arrival->message.number != received_ + 1) {
            return arrival->message.number <= received_ ? Taken::replaced : Taken::missed;
        }
        received_ += arrival->message.count;
    }
    arrivals_.push_back(std::move(arrival));
    return Taken::good;
}

bool RedisOrder::expect(uint64_t number, uint64_t now_us)
{
    if (number <= known_) {
        return false;
    }
    known_us_ = known_ > received_ ? known_us_ : now_us;
    known_ = number;
    return true;
}

std::optional<uint64_t> RedisOrder::awaited_since_us() const
{
    return known_ > received_ ? known_us_ : std::optional<uint64_t>();
}

// ---- Handing on ----

bool RedisOrder::reply_is_next() const
{
    return !requests_.empty() && requests_.front().answered && requests_.front().number <= received_ &&
           (arrivals_.empty() || requests_.front().number < arrivals_.front()->message.number);
}

RedisOrder::Next RedisOrder::next()
{
    while (true) {
        if (reply_is_next()) {
            Next next{.request = std::move(requests_.front()), .change = {}};
            requests_.pop_front();
            first_index_++;
            return next;
        }
        const bool waits = !requests_.empty() && !requests_.front().answered;
        if (arrivals_.empty() || is_holding_ || (waits && first_index_ < arrivals_.front()->behind)) {
            return {};
        }
        const std::shared_ptr<Arrival> arrival = arrivals_.front();
        if (!watched_.contains(arrival->message.change.name.type)) {
            arrivals_.pop_front();
            continue;
        }
        const bool good = take_change(arrival->message);
        if (!good || arrival->message.count == 0) {
            arrivals_.pop_front();
        }
        return good ? Next{.request = {}, .change = {arrival, &arrival->message.change}}
                    : Next{.request = {}, .change = {}, .is_malformed = true};
    }
}

} // namespace vvl::mom
