// A link's requests: how they go out, and what their replies say.
//
// Writes are held until the loop's turn ends, so that those of one turn share
// one call. Nothing overtakes them: whatever else is asked for sends them first.
#include "platform/mom/redis/link.h"

#include "platform/base/log.h"
#include "platform/mom/redis/library.h"
#include "platform/mom/redis/sentinels.h"

#include <hiredis/hiredis.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

namespace vvl::mom
{
namespace
{

// Of one call: the server works on it without a pause, and its functions take
// no more than 1000 objects.
constexpr size_t write_count_max = 256;
constexpr size_t write_bytes_max = 262'144;

// An answer of a server on this machine comes sooner than a process that sleeps
// is woken by it. A start-up waits for one for each port.
constexpr auto awake_max = std::chrono::microseconds(50);

// The number of the last change before the reply, which is the reply itself or
// its first element; false where there is none.
bool number_of(const redisReply &reply, uint64_t &number)
{
    const redisReply *first = reply.type == REDIS_REPLY_ARRAY && reply.elements > 0 ? reply.element[0] : &reply;
    number = first->type == REDIS_REPLY_INTEGER ? static_cast<uint64_t>(first->integer) : 0;
    return first->type == REDIS_REPLY_INTEGER && first->integer >= 0;
}

std::string_view text_of(const redisReply &reply)
{
    return reply.str != nullptr ? std::string_view(reply.str, static_cast<size_t>(reply.len)) : std::string_view();
}

} // namespace

// ---- Going out ----

int RedisLink::admit(Done done)
{
    if (!is_up()) {
        harmed_ = true;
        return TQ_MOM_E_UNREACHABLE;
    }
    if (sent_.size() >= redis_request_count_max) {
        return TQ_MOM_E_MEMORY;
    }
    sent_.push_back({.sent_us = loop_.now_us(), .done = std::move(done), .taken = {}});
    unanswered_++;
    settle_expectations();
    return TQ_MOM_OK;
}

void RedisLink::send_request(const char *function, const std::vector<std::string_view> &arguments,
                             RedisConnection::OnReply on_reply)
{
    const std::string name = std::string(redis_library_name) + "_" + function;
    std::vector<std::string_view> words{"FCALL", name, "0", server_.prefix, db_text_};
    words.insert(words.end(), arguments.begin(), arguments.end());
    requests_->send(words, std::move(on_reply));
}

int RedisLink::call(const char *function, const std::vector<std::string_view> &arguments, Done done)
{
    send_writes();
    if (const int result = admit(std::move(done)); result != TQ_MOM_OK) {
        return result;
    }
    send_request(function, arguments, [this, index = next_request() - 1, function](const redisReply &reply) {
        uint64_t number = 0;
        if (check_reply(reply, number)) {
            answer(index, number).result = result_of(reply, function);
            answered(number);
        }
    });
    return TQ_MOM_OK;
}

int RedisLink::request(const char *function, const std::vector<std::string_view> &arguments, Take take)
{
    send_writes();
    if (const int result = admit({}); result != TQ_MOM_OK) {
        return result;
    }
    send_request(function, arguments,
                 [this, index = next_request() - 1, take = std::move(take)](const redisReply &reply) {
                     uint64_t number = 0;
                     if (check_reply(reply, number)) {
                         Taken taken = take(reply);
                         answer(index, number).taken = std::move(taken);
                         answered(number);
                     }
                 });
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

int RedisLink::write(const std::string &type, const std::string &owner, std::string_view key, std::string_view value,
                     Done done)
{
    if (writes_.type != type || writes_.owner != owner || writes_.ends.size() >= 2 * write_count_max ||
        writes_.bytes.size() >= write_bytes_max) {
        send_writes();
    }
    if (const int result = admit(std::move(done)); result != TQ_MOM_OK) {
        return result;
    }
    const bool is_first = writes_.ends.empty();
    if (is_first) {
        writes_.type = type;
        writes_.owner = owner;
        writes_.first = next_request() - 1;
    }
    for (const std::string_view part : {key, value}) {
        writes_.bytes += part;
        writes_.ends.push_back(writes_.bytes.size());
    }
    if (!loop_.has_real_clock()) {
        send_writes(); // whoever waits for answers on a virtual clock waits for this one too
    } else if (is_first) {
        post([this] { send_writes(); });
    }
    return TQ_MOM_OK;
}

void RedisLink::send_writes()
{
    if (writes_.ends.empty()) {
        return;
    }
    std::vector<std::string_view> arguments{writes_.type, writes_.owner};
    size_t begin = 0;
    for (const size_t end : writes_.ends) {
        arguments.push_back(std::string_view(writes_.bytes).substr(begin, end - begin));
        begin = end;
    }
    send_request("write", arguments,
                 [this, first = writes_.first, count = writes_.ends.size() / 2](const redisReply &reply) {
                     take_writes(first, count, reply);
                 });
    writes_.ends.clear();
    writes_.bytes.clear();
}

// ---- Replies ----

int RedisLink::result_of(const redisReply &reply, const char *function) const
{
    if (reply.type != REDIS_REPLY_ERROR) {
        return TQ_MOM_OK;
    }
    const std::string text(text_of(reply));
    if (text.find("VVLANFULL") != std::string::npos) {
        return TQ_MOM_E_MEMORY;
    }
    log_line(LogLevel::error, name_ + ": " + function + " refused: " + text);
    return TQ_MOM_E_UNREACHABLE;
}

// False where the link has been given up over it.
bool RedisLink::check_reply(const redisReply &reply, uint64_t &number)
{
    number = 0;
    const bool is_error = reply.type == REDIS_REPLY_ERROR;
    // These say that this is not, or no longer, a server to write to.
    for (const char *sign : {"READONLY", "LOADING", "MASTERDOWN", "ERR Function not found", "NOREPLICAS"}) {
        if (is_error && text_of(reply).starts_with(sign)) {
            fail(std::string(text_of(reply)));
            return false;
        }
    }
    if (!is_error && !number_of(reply, number)) {
        fail("a reply is not what it should be");
        return false;
    }
    if (!is_error && number < replied_) {
        fail("the data set was replaced");
        return false;
    }
    replied_ = std::max(number, replied_);
    step_us_ = loop_.now_us();
    return true;
}

// The numbers of writes that were carried out end with the reply's; those that
// were refused have that of the write before them.
void RedisLink::take_writes(uint64_t first, size_t count, const redisReply &reply)
{
    uint64_t last = 0;
    if (!check_reply(reply, last)) {
        return;
    }
    const int failure = result_of(reply, "write");
    const size_t refused = reply.type == REDIS_REPLY_ARRAY ? reply.elements - 1 : 0;
    if (failure == TQ_MOM_OK && last < count - std::min(refused, count)) {
        fail("a reply is not what it should be");
        return;
    }
    uint64_t number = failure == TQ_MOM_OK ? last - (count - std::min(refused, count)) : 0;
    size_t next = 1; // refusal of the reply
    for (size_t i = 0; i < count; i++) {
        const bool is_refused =
            next <= refused && reply.element[next]->integer == static_cast<long long>(i) + 1; // places count from 1
        next += is_refused;
        number += failure == TQ_MOM_OK && !is_refused;
        answer(first + i, number).result = is_refused ? TQ_MOM_E_MEMORY : failure;
    }
    answered(last);
}

RedisLink::Request &RedisLink::answer(uint64_t index, uint64_t number)
{
    Request &request = sent_[index - first_index_];
    request.answered = true;
    request.number = number;
    unanswered_--;
    return request;
}

// Behind the answers of one reply.
void RedisLink::answered(uint64_t number)
{
    if (number > known_) {
        expect_change(number);
        events_.told_of(number);
    }
    settle_expectations();
    hand_on_later();
}

int RedisLink::take_refusal(uint64_t request)
{
    if (request < first_index_ || request >= next_request()) {
        return TQ_MOM_OK; // the link was lost meanwhile
    }
    Request &known = sent_[request - first_index_];
    if (known.answered && known.result != TQ_MOM_OK) {
        known.done = {};
    }
    return known.answered ? known.result : TQ_MOM_OK;
}

// Serves this link's connections until done, without the loop: nothing is
// handed on meanwhile. False where it took too long.
bool RedisLink::wait_for(const std::function<bool()> &done)
{
    using Clock = std::chrono::steady_clock;
    static const bool has_other_core = std::thread::hardware_concurrency() > 1;
    const auto begin = Clock::now();
    const auto end = begin + std::chrono::milliseconds(redis_answer_limit_ms);
    while (!done()) {
        RedisConnection *connections[] = {requests_.get(), changes_.get(),
                                          sentinels_ != nullptr ? sentinels_->connection() : nullptr};
        std::vector<pollfd> fds;
        for (const RedisConnection *connection : connections) {
            fds.push_back({.fd = connection != nullptr ? connection->descriptor() : -1,
                           .events = connection != nullptr ? connection->poll_events() : short{0},
                           .revents = 0});
        }
        const auto now = Clock::now();
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
        if (left <= 0) {
            return false;
        }
        const bool is_awake = has_other_core && now - begin < awake_max;
        poll(fds.data(), fds.size(), is_awake ? 0 : static_cast<int>(left));
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
