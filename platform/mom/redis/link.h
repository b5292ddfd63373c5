// A session's link to one database of a Redis server: it connects, looks after
// its server, is lost and comes back by itself. In between, requests go out, and
// replies and changes are handed on in the one order that store.h promises.
//
// A number that is left out, a data set with another id, and a server that does
// not answer all mean that the link is lost.
#pragma once

#include "platform/mom/redis/order.h"
#include "platform/mom/redis/peer.h"
#include "platform/mom/redis/writes.h"

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace vvl::mom
{

// Limits of a link, which is a session's connection to one database.
constexpr uint32_t redis_answer_limit_ms = 800;     // a server that takes longer counts as lost
constexpr uint32_t redis_check_interval_ms = 250;   // how often a link looks after its server
constexpr uint32_t redis_backoff_min_ms = 50;       // before the first attempt to reconnect
constexpr uint32_t redis_backoff_max_ms = 2000;     // between attempts, doubled from the first; both with jitter
constexpr size_t redis_request_count_max = 100'000; // requests on their way; one more is refused with TQ_MOM_E_MEMORY

// Told from the loop, one after the other; any of these may destroy the link.
struct RedisLinkEvents {
    std::function<void()> up;                     // connected for the first time
    std::function<void()> lost;                   // the link was up and is not
    std::function<void()> failed;                 // the same, at once and not from the loop
    std::function<void(bool missed)> back;        // it is up again, as SessionEvents::link_back; not from the loop
    std::function<void(const Change &)> changed;  // of a watched type
    std::function<void()> dropped;                // requests on their way end without an answer; not from the loop
    std::function<void(uint64_t number)> told_of; // a reply carried this number; not from the loop
};

class RedisLink final : private RedisPeerEvents
{
  public:
    // server and loop outlive the link. name: of the session, for log lines.
    RedisLink(Loop &loop, const RedisServer &server, uint32_t db, const std::string &name, RedisLinkEvents events);
    ~RedisLink() override;
    RedisLink(const RedisLink &) = delete;
    RedisLink &operator=(const RedisLink &) = delete;

    // Begins to connect, and keeps at it; nothing to do where it has begun.
    void start();
    bool is_up() const { return state_ == State::up; }
    bool is_started() const { return state_ != State::idle; }
    // Waits until the link is up, redis_answer_limit_ms at most.
    bool wait_until_up();

    // Gives the connection up and reconnects, as after a failure.
    void fail(const std::string &why);

    // Fault injection: as Session::set_link.
    void cut();
    void restore();
    bool is_cut() const { return state_ == State::cut; }

    // ---- Requests ----
    //
    // Each returns 0 or why it is refused; done (empty: nobody) is told its result.

    // The function's name without the library's, and what follows prefix and
    // database. An error of the server's is logged and makes the result.
    int call(const char *function, const std::vector<std::string_view> &arguments, Done done);

    // Writes an object with a key. Writes of one turn of the loop go out as one
    // call where nothing else comes between.
    int write(const std::string &type, const std::string &owner, std::string_view key, std::string_view value,
              Done done);

    // As call, for a reply that has more in it: take reads it, an error too,
    // and returns what is to be handed on in its turn (empty: nothing).
    using Taken = std::function<void()>;
    using Take = std::function<Taken(const redisReply &reply)>;
    int request(const char *function, const std::vector<std::string_view> &arguments, Take take);

    // The same, waiting for the reply; what take returns is called from here.
    int request_now(const char *function, const std::vector<std::string_view> &arguments, const Take &take);

    // What the reply to a call means: 0 or a code, an unexpected error being logged.
    int result_of(const redisReply &reply, const char *function) const;

    // Which request the next one will be; and the result of one that has been
    // refused already, as on a virtual clock. That one is not handed on then.
    uint64_t next_request() const { return order_.next_request(); }
    int take_refusal(uint64_t request) { return order_.take_refusal(request); }

    // Changes of the type are handed on from the completion on.
    int watch(const std::string &type, Done done);
    int unwatch(const std::string &type, Done done);

    // Runs the task from the loop, unless the link is gone by then.
    void post(std::function<void()> task);

    const std::string &name() const { return name_; } // "SESSION: database N", for log lines

    // Somebody knows of a change with this number, so it is on its way here.
    void expect_change(uint64_t number);

  private:
    enum class State { idle, connecting, up, waiting, cut };

    void peer_ready(const RedisStanding &standing) override;
    void peer_failed(const std::string &why) override { fail(why); }
    void peer_message(std::string_view text) override;

    void connect();
    void drop(bool keep_changes);
    void tell_lost();
    void retry_later();
    void arm_check();
    void look_after();
    void check_data_set();

    int admit(Done done);
    void send_writes();
    void take_writes(uint64_t first, size_t count, const redisReply &reply);
    bool check_reply(const redisReply &reply, uint64_t &number);
    void answered(uint64_t number);
    bool wait_for(const std::function<bool()> &done);

    void settle_expectations();
    void hand_on_later();
    void hand_on();

    Loop &loop_;
    const RedisServer &server_;
    const uint32_t db_;
    const std::string name_;
    RedisLinkEvents events_;

    State state_ = State::idle;
    bool was_up_ = false;         // at least once
    bool told_lost_ = false;      // and not yet back
    bool harmed_ = false;         // a request was refused or dropped since the link was lost
    bool failure_logged_ = false; // since it was up last
    uint32_t backoff_ms_ = 0;
    std::mt19937_64 random_; // for the jitter
    LoopId retry_timer_ = 0;

    uint64_t heard_us_ = 0; // when connecting or a check began, or something was heard last
    LoopId check_timer_ = 0;
    bool checking_ = false; // a check of the data set is on its way

    RedisStanding standing_; // when the link came up last
    RedisOrder order_;
    RedisWrites writes_; // they have not gone out yet, and are the last requests of the order
    bool hand_on_posted_ = false;
    uint64_t turn_ = 0; // moves on when the link is lost: what comes after must not overtake the news of it
    int expected_ = 0;  // answers that the loop was told to expect
    std::unique_ptr<RedisPeer> peer_; // while connecting and up
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace vvl::mom
