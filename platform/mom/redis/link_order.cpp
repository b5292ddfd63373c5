// A link's changes, and the one order that is made of them and the answers.
//
// Only the oldest request decides: requests are carried out in the order of
// sending, so those behind it have its number or a higher one. A change waits
// for the answers to what was sent before it came, since one of those may be a
// snapshot that was taken before it was made.
#include "platform/mom/redis/link.h"

#include "platform/mom/redis/reader.h"
#include "platform/mom/redis/words.h"

#include <hiredis/hiredis.h>

namespace vvl::mom
{
namespace
{

constexpr char not_a_message[] = "a message is not what it should be";

bool parse_kind(std::string_view word, ChangeKind &kind)
{
    static constexpr struct {
        char letter;
        ChangeKind kind;
    } kinds[] = {{'s', ChangeKind::set},
                 {'f', ChangeKind::fields_set},
                 {'r', ChangeKind::removed},
                 {'p', ChangeKind::published}};
    for (const auto &row : kinds) {
        if (word == std::string_view(&row.letter, 1)) {
            kind = row.kind;
            return true;
        }
    }
    return false;
}

bool parse_field_numbers(std::string_view text, std::vector<uint32_t> &fields)
{
    while (text != "-" && !text.empty()) {
        uint32_t number = 0;
        if (!parse_number(take_word(text, ','), number)) {
            return false;
        }
        fields.push_back(number);
    }
    return true;
}

} // namespace

// ---- Changes ----

void RedisLink::expect_change(uint64_t number)
{
    if (is_up() && number > known_) {
        known_us_ = known_ > received_ ? known_us_ : loop_.now_us();
        known_ = number;
        settle_expectations();
    }
}

void RedisLink::take_message(const redisReply &reply)
{
    if (reply.type != REDIS_REPLY_ARRAY || reply.elements != 3 || reply.element[2]->str == nullptr) {
        fail(not_a_message);
        return;
    }
    const std::string_view text(reply.element[2]->str, static_cast<size_t>(reply.element[2]->len));
    if (text.starts_with("= ")) { // somebody comes up
        if (state_ == State::connecting && text.substr(2) == fence_) {
            fence_.clear();
            come_up_when_complete();
        }
        return;
    }
    if (!take_changes(text)) {
        fail(not_a_message);
        return;
    }
    settle_expectations();
    hand_on_later();
}

// "NUMBER COUNT KIND TYPE FIELDS\n", NUMBER being that of the first change, and the changes.
bool RedisLink::take_changes(std::string_view text)
{
    auto arrival = std::make_shared<Arrival>();
    arrival->behind = next_request();
    std::string_view head = take_word(text, '\n');
    Change &change = arrival->change;
    if (!parse_number(take_word(head, ' '), arrival->number) || !parse_number(take_word(head, ' '), arrival->count) ||
        arrival->count == 0 || !parse_kind(take_word(head, ' '), change.kind)) {
        return false;
    }
    change.name.db = db_;
    change.name.type = take_word(head, ' ');
    if (!parse_field_numbers(head, change.fields)) {
        return false;
    }
    if (state_ == State::up) {
        if (arrival->number != received_ + 1) {
            fail(arrival->number <= received_ ? "the data set was replaced" : "a change was missed");
            return true;
        }
        received_ += arrival->count;
    }
    arrival->text = text;
    arrivals_.push_back(std::move(arrival));
    return true;
}

// The next one: "KEYSIZE VALUESIZE\n", key and value.
bool RedisLink::take_change(Arrival &arrival)
{
    std::string_view text = std::string_view(arrival.text).substr(arrival.offset);
    size_t key_size = 0;
    size_t value_size = 0;
    if (!parse_number(take_word(text, ' '), key_size) || !parse_number(take_word(text, '\n'), value_size) ||
        key_size > text.size() || value_size > text.size() - key_size) {
        return false;
    }
    Change &change = arrival.change;
    change.name.key = text.substr(0, key_size);
    const std::string_view value = text.substr(key_size, value_size);
    arrival.offset = arrival.text.size() - text.size() + key_size + value_size;
    arrival.number++;
    arrival.count--;
    if (key_size > 0) {
        change.value.bytes = value;
        return true;
    }
    change.value.fields.clear();
    return parse_redis_fields(value, change.value.fields);
}

// ---- The order ----

void RedisLink::settle_expectations()
{
    int expected = state_ == State::connecting ? 1 : 0;
    if (is_up()) {
        expected += known_ > received_ ? 1 : 0;
        expected += static_cast<int>(unanswered_);
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
    if (!hand_on_posted_) {
        hand_on_posted_ = true;
        post([this, turn = turn_] {
            if (turn == turn_) {
                hand_on_posted_ = false;
                hand_on();
            }
        });
    }
}

void RedisLink::hand_on()
{
    const std::weak_ptr<bool> still = alive_;
    while (!still.expired() && hand_on_next()) {
    }
}

// Hands one on; false where nothing is ready.
bool RedisLink::hand_on_next()
{
    const bool waits = !sent_.empty() && !sent_.front().answered;
    if (!sent_.empty() && !waits && sent_.front().number <= received_ &&
        (arrivals_.empty() || sent_.front().number < arrivals_.front()->number)) {
        const Request request = std::move(sent_.front());
        sent_.pop_front();
        first_index_++;
        if (request.taken) {
            request.taken();
        } else if (request.done) {
            request.done(request.result);
        }
        return true;
    }
    if (arrivals_.empty() || state_ == State::connecting || (waits && first_index_ < arrivals_.front()->behind)) {
        return false;
    }
    const std::shared_ptr<Arrival> arrival = arrivals_.front(); // its change is handed on
    if (!watched_.contains(arrival->change.name.type)) {
        arrivals_.pop_front();
        return true;
    }
    if (!take_change(*arrival)) {
        arrivals_.pop_front();
        fail(not_a_message);
        return true;
    }
    if (arrival->count == 0) {
        arrivals_.pop_front();
    }
    events_.changed(arrival->change);
    return true;
}

} // namespace vvl::mom
