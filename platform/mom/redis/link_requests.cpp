// A link's requests: how they go out, and what their replies say.
//
// Writes are held until the loop's turn ends, so that those of one turn share
// one call. Nothing overtakes them: every other request sends them first.
#include "platform/mom/redis/link.h"

#include "platform/base/log.h"
#include "platform/mom/redis/reply.h"

#include <chrono>
#include <thread>
#include <utility>

namespace vvl::mom
{
namespace
{

// An answer of a server on this machine comes sooner than a process that sleeps
// is woken by it. A start-up waits for one for each port.
constexpr auto awake_max = std::chrono::microseconds(50);

constexpr char malformed_reply[] = "malformed reply";

} // namespace

// ---- Going out ----

int RedisLink::admit(Done done)
{
    if (!is_up()) {
        harmed_ = true;
        return TQ_MOM_E_UNREACHABLE;
    }
    if (order_.request_count() >= redis_request_count_max) {
        return TQ_MOM_E_MEMORY;
    }
    order_.add(loop_.now_us(), std::move(done));
    settle_expectations();
    return TQ_MOM_OK;
}

int RedisLink::call(const char *function, const std::vector<std::string_view> &arguments, Done done)
{
    send_writes();
    if (const int result = admit(std::move(done)); result != TQ_MOM_OK) {
        return result;
    }
    peer_->call(function, arguments, [this, index = next_request() - 1, function](const redisReply &reply) {
        uint64_t number = 0;
        if (check_reply(reply, number)) {
            order_.answer(index, number).result = result_of(reply, function);
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
    peer_->call(function, arguments,
                [this, index = next_request() - 1, take = std::move(take)](const redisReply &reply) {
                    uint64_t number = 0;
                    if (check_reply(reply, number)) {
                        Taken taken = take(reply);
                        order_.answer(index, number).taken = std::move(taken);
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
    return request("state", {}, [this, type, done = std::move(done)](const redisReply &reply) {
        return [this, type, done, result = result_of(reply, "state")] {
            if (result == TQ_MOM_OK) {
                order_.watch(type);
            }
            if (done) {
                done(result);
            }
        };
    });
}

int RedisLink::unwatch(const std::string &type, Done done)
{
    return request("state", {}, [this, type, done = std::move(done)](const redisReply &) {
        return [this, type, done] {
            order_.unwatch(type);
            if (done) {
                done(TQ_MOM_OK);
            }
        };
    });
}

int RedisLink::write(const std::string &type, const std::string &owner, std::string_view key, std::string_view value,
                     Done done)
{
    if (!writes_.has_room_for(type, owner)) {
        send_writes();
    }
    if (const int result = admit(std::move(done)); result != TQ_MOM_OK) {
        return result;
    }
    const bool is_first = writes_.empty();
    writes_.add(type, owner, key, value, next_request() - 1);
    if (!loop_.has_real_clock()) {
        send_writes(); // on a virtual clock the loop waits for all answers, this one too
    } else if (is_first) {
        post([this] { send_writes(); });
    }
    return TQ_MOM_OK;
}

void RedisLink::send_writes()
{
    if (writes_.empty()) {
        return;
    }
    peer_->call("write", writes_.arguments(),
                [this, first = writes_.first_request(), count = writes_.count()](const redisReply &reply) {
                    take_writes(first, count, reply);
                });
    writes_.clear();
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
        fail(malformed_reply);
        return false;
    }
    if (!is_error && !order_.take_number(number)) {
        fail("the data set was replaced");
        return false;
    }
    heard_us_ = loop_.now_us();
    return true;
}

void RedisLink::take_writes(uint64_t first, size_t count, const redisReply &reply)
{
    uint64_t last = 0;
    if (!check_reply(reply, last)) {
        return;
    }
    if (const int failure = result_of(reply, "write"); failure != TQ_MOM_OK) {
        for (size_t i = 0; i < count; i++) {
            order_.answer(first + i, 0).result = failure;
        }
        answered(last);
        return;
    }
    std::vector<uint64_t> refused;
    for (size_t i = 1; reply.type == REDIS_REPLY_ARRAY && i < reply.elements; i++) {
        refused.push_back(static_cast<uint64_t>(reply.element[i]->integer));
    }
    const std::vector<RedisWritten> written = share_out(count, last, refused);
    if (written.empty()) {
        fail(malformed_reply);
        return;
    }
    for (size_t i = 0; i < count; i++) {
        order_.answer(first + i, written[i].number).result = written[i].is_refused ? TQ_MOM_E_MEMORY : TQ_MOM_OK;
    }
    answered(last);
}

// Behind the answers of one reply.
void RedisLink::answered(uint64_t number)
{
    if (order_.expect(number, loop_.now_us())) {
        events_.told_of(number);
    }
    settle_expectations();
    hand_on_later();
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
        const auto now = Clock::now();
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - now).count();
        if (left <= 0 || peer_ == nullptr) {
            return false;
        }
        const bool is_awake = has_other_core && now - begin < awake_max;
        peer_->serve(is_awake ? 0 : static_cast<int>(left));
    }
    return true;
}

} // namespace vvl::mom
