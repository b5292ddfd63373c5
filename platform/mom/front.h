// The front: one client of a store, in the terms of tq_mom.h.
//
// It turns messages into names and values, templates into matches, and a session's
// events into records for callbacks. It works with any store. Any callback may
// end the client or cut a connection, so the front checks after each one whether
// it may go on: Front::going() and Subscription::ended.
#pragma once

#include "platform/mom/delivery.h"
#include "platform/mom/scan_cache.h"

#include <array>
#include <map>
#include <memory>
#include <utility>

namespace vvl::mom
{

struct Subscription {
    // What identifies it.
    uint32_t db;
    const ObjectType *type;
    Match match;
    uint32_t field; // of a keyless object; 0: the whole type
    Receiver to;

    bool established = false; // changes are delivered from here on, until the link is lost
    bool ended = false;       // unsubscribed
    // The objects that were delivered to it, by its own records or by a scan of
    // the same client, and whose removal was not yet: key to packed form as last
    // delivered (empty: keyless). A removal is delivered with that form.
    std::map<std::string, std::string> delivered = {};
};
using SubscriptionPtr = std::shared_ptr<Subscription>;

class Front final : public SessionEvents, public std::enable_shared_from_this<Front>
{
  public:
    Front(void *ctx, const std::string &name, Preparation prepare) : delivery_(ctx, name), prepare_(std::move(prepare))
    {
    }

    // Opens the session. close() ends it: nothing is delivered afterwards.
    void open(Store &store, Loop &loop);
    void close();

    ClientCounters &counters() { return delivery_.counters; }

    // The operations of tq_mom.h and client.h. The caller holds a reference, as
    // callbacks of the synchronous ones may end the client.
    int connect_sync(uint32_t db);
    int connect(uint32_t db, tq_mom_connect_cb_t callback, void *user);
    int set_disconnect_callback(uint32_t db, tq_mom_disconnect_cb_t callback);
    int set_reconnect_callback(uint32_t db, tq_mom_reconnect_cb_t callback);

    int set(uint32_t db, const ProtobufCMessage *object, Owner owner, Receiver to);
    int del(uint32_t db, const ProtobufCMessage *object, Owner owner, Receiver to);
    int get_sync(uint32_t db, const ProtobufCMessage *key, MessagePtr &object);

    int scan(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to);
    int scan_sync(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to);

    int subscribe(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to);
    int unsubscribe(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to);
    int subscribe_fields(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, const uint32_t *fields,
                         const tq_mom_callback_t *callbacks, void *const *users, uint32_t count);

    int clear_expire(uint32_t db, const ProtobufCMessage *key, Receiver to);
    int begin_cycle_sync(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry);
    int begin_cycle(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry, Owner owner,
                    Receiver to);
    int end_cycle(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Owner owner, Receiver to);

    int publish(uint32_t db, const ProtobufCMessage *object);
    int set_fields(uint32_t db, const ProtobufCMessage *object, const uint32_t *fields, uint32_t count, Receiver to);
    int set_link(uint32_t db, bool up);
    int refuse_request(uint32_t db, uint32_t number);

    // What the session tells.
    void link_lost(uint32_t db) override;
    void link_back(uint32_t db, bool missed) override;
    void changed(const Change &change) override;

  private:
    struct Database {
        bool asked_for = false;      // a connect call was made
        bool refusal_logged = false; // that operations on it are refused
        uint32_t refused = 0;        // which request from now on is refused; 0: none
        uint64_t epoch = 0;          // counts the cuts; a delivery that began before a cut stops
        tq_mom_disconnect_cb_t on_disconnect = nullptr;
        tq_mom_reconnect_cb_t on_reconnect = nullptr;
    };

    // A caller's message in the store's terms.
    struct Request {
        const ObjectType *type = nullptr;
        MessagePtr message; // of the platform's descriptor
        std::string bytes;  // packed
        Name name;          // the key is empty where it was not asked for
    };

    int check_db(uint32_t db);
    // Logs why a caller's object is refused; answers TQ_MOM_E_INVALID.
    int refuse(const ProtobufCMessage &object, const std::string &why) const;
    int read_template(uint32_t db, const ProtobufCMessage *tmpl, Request &request);
    int read_object(uint32_t db, const ProtobufCMessage *object, Request &request);
    int read_match(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to, Request &request);
    int read_cycle(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Request &request);
    static bool take_value(Request &request, Value &value); // false where its bytes are malformed
    static bool has_field(const ObjectType &type, uint32_t number);

    Done answer(Receiver to, int32_t operate, int32_t phase);
    // A completion that is silent once the client has ended.
    template <typename Task> auto while_open(Task task)
    {
        return [weak = weak_from_this(), task = std::move(task)](auto... arguments) {
            if (auto self = weak.lock(); self && self->session_) {
                task(*self, std::move(arguments)...);
            }
        };
    }
    void prepare(uint32_t db);
    bool going(uint32_t db, uint64_t epoch) const { return session_ && databases_[db].epoch == epoch; }

    std::shared_ptr<ScanCache> scan_cache(uint32_t db, const ObjectType &type);
    void deliver_objects(uint32_t db, const ObjectType &type, ScanCache::Chosen &chosen, Receiver to);
    void remember(uint32_t db, const ObjectType &type, const ProtobufCMessage &message, const Object &object);

    SubscriptionPtr find_subscription(const Subscription &wanted) const;
    int add_subscription(Subscription wanted);
    void subscription_watched(const SubscriptionPtr &subscription, int result);
    void find_missed_deletions(const SubscriptionPtr &subscription);
    void deliver_missed_deletions(const SubscriptionPtr &subscription, const std::vector<Object> &present);
    void deliver_change(const SubscriptionPtr &subscription, const Change &change);
    void deliver_removal(const SubscriptionPtr &subscription, const std::string &key);

    Delivery delivery_;
    const Preparation prepare_;        // may be empty
    std::unique_ptr<Session> session_; // null once the client has ended
    std::array<Database, database_count> databases_;
    // Of the scans that are under way.
    std::map<std::pair<uint32_t, const ObjectType *>, std::weak_ptr<ScanCache>> scan_caches_;
    uint64_t subscription_changes_ = 1;          // counts the changes of the list
    std::vector<SubscriptionPtr> subscriptions_; // in the order in which they were made first
};

} // namespace vvl::mom
