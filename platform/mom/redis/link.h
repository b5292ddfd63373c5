// A session's link to one database of a Redis server: two connections, one for
// requests and one for the channel of changes, merged into the one order that
// store.h promises.
//
// Every reply carries the number of the last change before it, every change its
// own. A reply is handed on when all changes up to its number have been, and a
// change when all requests sent before it came are answered. A number that is
// left out, a data set with another id, and a server that does not answer all
// mean that the link is lost; it comes back by itself.
#pragma once

#include "platform/mom/redis/connection.h"
#include "platform/mom/store.h"

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
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

class RedisSentinels;

// What all links of a store have in common.
struct RedisServer {
    RedisAddress address;
    RedisCredentials credentials;
    std::string prefix;
};

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

class RedisLink
{
  public:
    // server and loop outlive the link. name: of the session, for log lines.
    RedisLink(Loop &loop, const RedisServer &server, uint32_t db, const std::string &name, RedisLinkEvents events);
    ~RedisLink();
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
    // call where nothing else comes between: it costs the server little more
    // than one write does.
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
    uint64_t next_request() const { return first_index_ + sent_.size(); }
    int take_refusal(uint64_t request);

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

    struct Request {
        bool answered = false;
        uint64_t number = 0; // last change before it; known when it is answered
        uint64_t sent_us = 0;
        int result = TQ_MOM_OK; // for done
        Done done;
        Taken taken; // instead of done
    };
    // One message of changes, taken apart as they are handed on.
    struct Arrival {
        uint64_t number = 0; // of the next change
        uint64_t count = 0;  // of changes that are left
        uint64_t behind = 0; // requests that were sent before it came
        std::string text;
        size_t offset = 0; // of the next change in text
        Change change;     // what all have in common; key and value are those of the one handed on
    };
    // Writes that have not gone out yet; they are the last ones of sent_.
    struct Writes {
        std::string type;
        std::string owner;
        uint64_t first = 0;       // request
        std::string bytes;        // keys and values
        std::vector<size_t> ends; // of each in bytes
    };

    // Connecting, in the order of the steps.
    void connect();
    void connect_to(const RedisEndpoint &endpoint);
    void introduce();
    void subscribe();
    void read_state(const redisReply &reply);
    void come_up_when_complete();
    void come_up(const std::string &data_set, uint64_t number);
    void send_authentication(RedisConnection &connection);
    void expect_good(const redisReply &reply, const char *step);

    void drop(bool keep_changes);
    void retry_later();
    void look_after();
    void arm_check();

    int admit(Done done);
    void send_request(const char *function, const std::vector<std::string_view> &arguments,
                      RedisConnection::OnReply on_reply);
    void send_writes();
    void take_writes(uint64_t first, size_t count, const redisReply &reply);
    bool check_reply(const redisReply &reply, uint64_t &number);
    Request &answer(uint64_t index, uint64_t number);
    void answered(uint64_t number);
    void take_message(const redisReply &reply);
    bool take_changes(std::string_view text);
    static bool take_change(Arrival &arrival);
    void settle_expectations();
    void hand_on_later();
    void hand_on();
    bool hand_on_next();
    bool wait_for(const std::function<bool()> &done);

    Loop &loop_;
    const RedisServer &server_;
    const uint32_t db_;
    const std::string name_;
    const std::string db_text_;
    RedisLinkEvents events_;
    State state_ = State::idle;
    bool was_up_ = false;    // at least once
    bool told_lost_ = false; // and not yet back
    bool harmed_ = false;    // a request was refused or dropped since the link was lost
    bool failure_logged_ = false;
    uint32_t backoff_ms_ = 0;
    uint64_t step_us_ = 0; // when connecting began, or something was heard last
    LoopId retry_timer_ = 0;
    LoopId check_timer_ = 0;
    std::unique_ptr<RedisSentinels> sentinels_;
    std::unique_ptr<RedisConnection> requests_;
    std::unique_ptr<RedisConnection> changes_;
    std::mt19937_64 random_;

    // Which data set, run of the server and place in its line of changes.
    std::string fence_; // the message that ends the changes before the state's answer; empty when it has come
    std::optional<std::pair<std::string, uint64_t>> start_; // data set and number of the state's answer
    std::string run_id_;                                    // as the server has just said
    std::string run_id_before_;                             // when the link was up last
    std::string data_set_;
    uint64_t received_ = 0; // number of the last change that came
    uint64_t known_ = 0;    // of the last one that is known to exist
    uint64_t known_us_ = 0; // since when it is awaited

    uint64_t replied_ = 0; // number of the last reply

    std::deque<Request> sent_;
    size_t unanswered_ = 0;    // of sent_
    uint64_t first_index_ = 0; // of sent_'s first
    Writes writes_;
    std::deque<std::shared_ptr<Arrival>> arrivals_;
    std::set<std::string> watched_;
    bool hand_on_posted_ = false;
    uint64_t turn_ = 0;     // moves on when the link is lost: what comes after must not overtake the news of it
    bool checking_ = false; // a check of the data set is on its way
    int expected_ = 0;      // answers that the loop was told to expect
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

} // namespace vvl::mom
