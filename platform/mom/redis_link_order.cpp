// A link's requests and changes, and the one order that is made of them.
//
// Only the oldest request decides: requests are carried out in the order of
// sending, so those behind it have its number or a higher one. A change waits
// for the answers to what was sent before it came, since one of those may be a
// snapshot that was taken before it was made.
#include "platform/mom/redis_link.h"

#include "platform/base/log.h"
#include "platform/mom/redis_sentinels.h"

#include <hiredis/hiredis.h>
#include <poll.h>

#include <algorithm>
#include <charconv>
#include <chrono>

namespace vvl::mom
{
namespace
{

// The number of the last change before the reply, which is the reply itself or
// its first element; false where there is none.
bool number_of(const redisReply &reply, uint64_t &number)
{
    const redisReply *first = reply.type == REDIS_REPLY_ARRAY && reply.elements > 0 ? reply.element[0] : &reply;
    number = first->type == REDIS_REPLY_INTEGER ? static_cast<uint64_t>(first->integer) : 0;
    return first->type == REDIS_REPLY_INTEGER && first->integer >= 0;
}

template <typename Number> bool parse_number(std::string_view text, Number &number)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size();
}

// What stands before the next separator; text goes on behind it.
std::string_view take_word(std::string_view &text, char separator)
{
    const size_t end = text.find(separator);
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return word;
}

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

bool parse_redis_fields(std::string_view text, FieldMap &fields)
{
    while (!text.empty()) {
        uint32_t number = 0;
        size_t size = 0;
        if (!parse_number(take_word(text, ' '), number) || !parse_number(take_word(text, '\n'), size) ||
            size > text.size()) {
            return false;
        }
        fields[number] = text.substr(0, size);
        text.remove_prefix(size);
    }
    return true;
}

// ---- Requests ----

void RedisLink::send_request(const char *function, const std::vector<std::string_view> &arguments,
                             RedisConnection::OnReply on_reply)
{
    const std::string name = std::string("vvlan1_") + function;
    std::vector<std::string_view> words{"FCALL", name, "0", server_.prefix, db_text_};
    words.insert(words.end(), arguments.begin(), arguments.end());
    requests_->send(words, std::move(on_reply));
}

int RedisLink::request(const char *function, const std::vector<std::string_view> &arguments, Take take)
{
    if (!is_up()) {
        harmed_ = true;
        return TQ_MOM_E_UNREACHABLE;
    }
    if (sent_.size() >= redis_request_count_max) {
        return TQ_MOM_E_MEMORY;
    }
    const uint64_t index = first_index_ + sent_.size();
    sent_.push_back({.sent_us = loop_.now_us(), .taken = {}});
    unanswered_++;
    settle_expectations();
    send_request(function, arguments,
                 [this, index, take = std::move(take)](const redisReply &reply) { take_reply(index, reply, take); });
    return TQ_MOM_OK;
}

int RedisLink::request_now(const char *function, const std::vector<std::string_view> &arguments, const Take &take)
{
    struct Answer {
        bool here = false;
        Taken taken;
    };
    // Shared with the reply, which may come when nobody waits any more.
    auto answer = std::make_shared<Answer>();
    const int result = request(function, arguments, [answer, take](const redisReply &reply) {
        answer->here = true;
        answer->taken = take(reply);
        return Taken();
    });
    if (result != TQ_MOM_OK) {
        return result;
    }
    if (!wait_for([&] { return answer->here || !is_up(); })) {
        fail("no answer in time");
    }
    if (!answer->here) {
        return TQ_MOM_E_UNREACHABLE;
    }
    if (answer->taken) {
        answer->taken();
    }
    return TQ_MOM_OK;
}

int RedisLink::watch(const std::string &type, Done done)
{
    return request("state", {}, [this, type, done = std::move(done)](const redisReply &) {
        return [this, type, done] {
            watched_.insert(type);
            if (done) {
                done(TQ_MOM_OK);
            }
        };
    });
}

int RedisLink::unwatch(const std::string &type, Done done)
{
    return request("state", {}, [this, type, done = std::move(done)](const redisReply &) {
        return [this, type, done] {
            watched_.erase(type);
            if (done) {
                done(TQ_MOM_OK);
            }
        };
    });
}

void RedisLink::take_reply(uint64_t index, const redisReply &reply, const Take &take)
{
    uint64_t number = 0;
    const bool is_error = reply.type == REDIS_REPLY_ERROR;
    const std::string_view text = reply.str != nullptr ? reply.str : "";
    // These say that this is not, or no longer, a server to write to.
    for (const char *sign : {"READONLY", "LOADING", "MASTERDOWN", "ERR Function not found", "NOREPLICAS"}) {
        if (is_error && text.starts_with(sign)) {
            fail(std::string(text));
            return;
        }
    }
    if (!is_error && !number_of(reply, number)) {
        fail("a reply is not what it should be");
        return;
    }
    if (!is_error && number < replied_) {
        fail("the data set was replaced");
        return;
    }
    replied_ = std::max(number, replied_);
    unanswered_--;
    step_us_ = loop_.now_us();
    Request &request = sent_[index - first_index_];
    request.answered = true;
    request.number = is_error ? 0 : number;
    request.taken = take(reply);
    if (number > known_) {
        expect_change(number);
        events_.told_of(number);
    }
    settle_expectations();
    hand_on_later();
}

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
    const bool is_message = reply.type == REDIS_REPLY_ARRAY && reply.elements == 3 && reply.element[2]->str != nullptr;
    if (!is_message || !take_change({reply.element[2]->str, static_cast<size_t>(reply.element[2]->len)})) {
        fail("a message is not what it should be");
        return;
    }
    settle_expectations();
    hand_on_later();
}

// "NUMBER KIND TYPE :KEY FIELDS\nPAYLOAD"
bool RedisLink::take_change(std::string_view text)
{
    std::string_view head = take_word(text, '\n');
    Arrival arrival{0, first_index_ + sent_.size(), {}};
    Change &change = arrival.change;
    if (!parse_number(take_word(head, ' '), arrival.number) || !parse_kind(take_word(head, ' '), change.kind)) {
        return false;
    }
    change.name.db = db_;
    change.name.type = take_word(head, ' ');
    const std::string_view key = take_word(head, ' ');
    if (!key.starts_with(':') || !parse_field_numbers(head, change.fields)) {
        return false;
    }
    change.name.key = key.substr(1);
    if (!change.name.key.empty()) {
        change.value.bytes = text;
    } else if (!parse_redis_fields(text, change.value.fields)) {
        return false;
    }
    if (state_ == State::up) {
        if (arrival.number <= received_) {
            fail("the data set was replaced");
            return true;
        }
        if (arrival.number != received_ + 1) {
            fail("a change was missed");
            return true;
        }
        received_ = arrival.number;
    }
    arrivals_.push_back(std::move(arrival));
    return true;
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
        (arrivals_.empty() || sent_.front().number < arrivals_.front().number)) {
        const Taken taken = std::move(sent_.front().taken);
        sent_.pop_front();
        first_index_++;
        if (taken) {
            taken();
        }
        return true;
    }
    if (arrivals_.empty() || state_ == State::connecting || (waits && first_index_ < arrivals_.front().behind)) {
        return false;
    }
    const Change change = std::move(arrivals_.front().change);
    arrivals_.pop_front();
    if (watched_.contains(change.name.type)) {
        events_.changed(change);
    }
    return true;
}

// Serves this link's connections until done, without the loop: nothing is
// handed on meanwhile. False where it took too long.
bool RedisLink::wait_for(const std::function<bool()> &done)
{
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(redis_answer_limit_ms);
    while (!done()) {
        RedisConnection *connections[] = {requests_.get(), changes_.get(),
                                          sentinels_ != nullptr ? sentinels_->connection() : nullptr};
        std::vector<pollfd> fds;
        for (const RedisConnection *connection : connections) {
            fds.push_back({.fd = connection != nullptr ? connection->descriptor() : -1,
                           .events = connection != nullptr ? connection->poll_events() : short{0},
                           .revents = 0});
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        poll(fds.data(), fds.size(), static_cast<int>(left));
        // Serving one may end them all.
        for (size_t i = 0; i < fds.size(); i++) {
            if (fds[i].revents != 0) {
                connections[i]->serve(fds[i].revents);
                break;
            }
        }
    }
    return true;
}

} // namespace vvl::mom
