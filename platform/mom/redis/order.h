// The one order of a database's replies and changes (store.h), as a value: it
// knows numbers, requests and messages, but no server and no loop.
//
// Every reply carries the number of the last change before it, every change its
// own. A reply is handed on when all changes up to its number have been, and a
// change when all requests that were sent before it came are answered, since one
// of those may be a snapshot that was taken before the change was made. Only the
// oldest request decides: requests are carried out in the order of sending, so
// those behind it have its number or a higher one.
#pragma once

#include "platform/mom/redis/changes.h"

#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace vvl::mom
{

// A request on its way. Of done and taken one is called when its turn comes.
struct RedisRequest {
    bool answered = false;
    uint64_t number = 0;    // of the last change before it; known when it is answered
    uint64_t sent_us = 0;   // loop time
    int result = TQ_MOM_OK; // for done
    Done done;
    std::function<void()> taken;
};

class RedisOrder
{
  public:
    explicit RedisOrder(uint32_t db) : db_(db) {}

    // ---- The line of changes ----

    // While the link connects, changes are collected and not handed on.
    void hold();
    // The link is up: the changes up to number are behind it.
    void start(uint64_t number);
    // The link is lost: requests on their way are never answered. Changes that
    // have come are handed on, unless they are dropped too.
    void stop(bool keep_changes);

    uint64_t received() const { return received_; } // number of the last change that came

    // ---- Requests; they are counted from 0 ----

    uint64_t next_request() const { return first_index_ + requests_.size(); }
    size_t request_count() const { return requests_.size(); } // answered ones that wait for their turn included
    size_t unanswered() const { return unanswered_; }
    std::optional<uint64_t> oldest_unanswered_us() const; // when it was sent

    void add(uint64_t now_us, Done done);
    // Whether a reply can carry this number: one that is lower than an earlier
    // reply's is about another data set.
    bool is_in_line(uint64_t number) const { return number >= replied_; }
    // A reply carried this number. False where it cannot.
    bool take_number(uint64_t number);
    // Marks a request as answered; the caller sets its result or what is taken.
    RedisRequest &answer(uint64_t request, uint64_t number);
    // The result of a request that is refused already, or 0. A refused one is not
    // handed on then.
    int take_refusal(uint64_t request);

    // ---- Changes ----

    enum class Taken {
        good,
        malformed,
        replaced, // the number was there already: this is another data set
        missed,   // a number was left out
    };
    Taken take_message(std::string_view text);

    // Changes of a watched type are handed on, others are skipped.
    void watch(const std::string &type) { watched_.insert(type); }
    void unwatch(const std::string &type) { watched_.erase(type); }
    void unwatch_all() { watched_.clear(); }

    // Somebody knows of the change with this number, so it is on its way here.
    // False where that is no news.
    bool expect(uint64_t number, uint64_t now_us);
    // Since when a change is awaited that is known to exist.
    std::optional<uint64_t> awaited_since_us() const;

    // ---- Handing on ----

    // One of these, or nothing: a request whose turn it is, the next change of a
    // watched type, or the news that a message ended in the middle.
    struct Next {
        std::optional<RedisRequest> request;
        std::shared_ptr<const Change> change; // valid until the next call
        bool is_malformed = false;
        explicit operator bool() const { return request || change || is_malformed; }
    };
    Next next();

  private:
    struct Arrival {
        ChangeMessage message;
        uint64_t behind = 0; // requests that were sent before it came
    };

    bool reply_is_next() const;

    uint32_t db_;
    bool is_holding_ = true;
    uint64_t received_ = 0; // number of the last change that came
    uint64_t known_ = 0;    // of the last one that is known to exist
    uint64_t known_us_ = 0; // since when it is awaited
    uint64_t replied_ = 0;  // of the last reply
    std::deque<RedisRequest> requests_;
    size_t unanswered_ = 0;    // of requests_
    uint64_t first_index_ = 0; // of the first of requests_
    std::deque<std::shared_ptr<Arrival>> arrivals_;
    std::set<std::string> watched_;
};

} // namespace vvl::mom
