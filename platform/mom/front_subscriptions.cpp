// The front: subscriptions of one client, and the changes that reach them.
//
// A subscription is silent until its watch has completed: a change before that
// point shows in the scan that its client makes next. It remembers which objects
// were delivered to it. When it is made again, a snapshot taken right after the
// watch says which of them were removed meanwhile. Later changes reach the
// subscription in the ordinary way, so the two never contradict each other.
#include "platform/mom/front.h"

#include "platform/base/log.h"

#include <algorithm>

namespace vvl::mom
{
namespace
{

bool is_same_but_field(const Subscription &a, const Subscription &b)
{
    return a.db == b.db && a.type == b.type && a.match == b.match && a.to.callback == b.to.callback &&
           a.to.user == b.to.user;
}

bool concerns(const Subscription &subscription, const ObjectType *type, const Change &change)
{
    if (!subscription.established || subscription.db != change.name.db || subscription.type != type) {
        return false;
    }
    return subscription.field == 0 ||
           std::find(change.fields.begin(), change.fields.end(), subscription.field) != change.fields.end();
}

} // namespace

// ---- Making and ending ----

SubscriptionPtr Front::find_subscription(const Subscription &wanted) const
{
    auto found = std::find_if(subscriptions_.begin(), subscriptions_.end(), [&](const SubscriptionPtr &s) {
        return is_same_but_field(*s, wanted) && s->field == wanted.field;
    });
    return found == subscriptions_.end() ? nullptr : *found;
}

int Front::add_subscription(Subscription wanted)
{
    SubscriptionPtr subscription = find_subscription(wanted);
    const bool again = subscription != nullptr;
    if (!again) {
        if (subscriptions_.size() == subscription_count_max) {
            return TQ_MOM_E_MEMORY;
        }
        subscription = std::make_shared<Subscription>(std::move(wanted));
    }
    const std::string type = subscription->type->descriptor->name;
    const int result = session_->watch(subscription->db, type, while_open([subscription](Front &front, int outcome) {
                                           front.subscription_watched(subscription, outcome);
                                       }));
    if (result != TQ_MOM_OK) {
        return result;
    }
    if (again) {
        find_missed_deletions(subscription);
    } else {
        subscriptions_.push_back(subscription);
        subscription_changes_++;
    }
    return TQ_MOM_OK;
}

int Front::subscribe(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to)
{
    Request request;
    if (const int result = read_match(db, tmpl, flags, to, request); result != TQ_MOM_OK) {
        return result;
    }
    return add_subscription({db, request.type, Match(*request.type, *request.message, flags), 0, to});
}

int Front::subscribe_fields(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, const uint32_t *fields,
                            const tq_mom_callback_t *callbacks, void *const *users, uint32_t count)
{
    if (fields == nullptr || callbacks == nullptr || users == nullptr || count == 0) {
        return TQ_MOM_E_INVALID;
    }
    Request request;
    if (const int result = read_match(db, tmpl, flags, {callbacks[0], users[0]}, request); result != TQ_MOM_OK) {
        return result;
    }
    if (request.type->key != nullptr || count > subscription_count_max) {
        return TQ_MOM_E_INVALID;
    }
    std::vector<Subscription> wanted;
    size_t added = 0;
    for (uint32_t i = 0; i < count; i++) {
        if (callbacks[i] == nullptr || !has_field(*request.type, fields[i])) {
            return TQ_MOM_E_INVALID;
        }
        wanted.push_back(
            {db, request.type, Match(*request.type, *request.message, flags), fields[i], {callbacks[i], users[i]}});
        added += find_subscription(wanted.back()) == nullptr;
    }
    // All or none: the table has to have room for every new one.
    if (subscriptions_.size() + added > subscription_count_max) {
        return TQ_MOM_E_MEMORY;
    }
    for (Subscription &subscription : wanted) {
        if (const int result = add_subscription(std::move(subscription)); result != TQ_MOM_OK) {
            return result;
        }
    }
    return TQ_MOM_OK;
}

int Front::unsubscribe(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to)
{
    Request request;
    if (const int result = read_match(db, tmpl, flags, to, request); result != TQ_MOM_OK) {
        return result;
    }
    const Subscription wanted{db, request.type, Match(*request.type, *request.message, flags), 0, to};
    std::vector<SubscriptionPtr> kept;
    std::vector<SubscriptionPtr> ended;
    bool is_watched = false; // by another one
    for (const SubscriptionPtr &subscription : subscriptions_) {
        const bool ends = is_same_but_field(*subscription, wanted);
        (ends ? ended : kept).push_back(subscription);
        is_watched |= !ends && subscription->db == db && subscription->type == request.type;
    }
    if (ended.empty()) {
        return TQ_MOM_OK;
    }
    auto withdraw = while_open([db, to, count = ended.size()](Front &front, int result) {
        const uint64_t epoch = front.databases_[db].epoch;
        for (size_t i = 0; i < count && front.going(db, epoch); i++) {
            front.delivery_.send_plain(to, TQ_MOM_WITHDRAWN, TQ_MOM_RECORD, result);
        }
    });
    // Watching a watched type changes nothing and completes in its turn, which
    // keeps the record in order.
    const int result = is_watched ? session_->watch(db, request.name.type, std::move(withdraw))
                                  : session_->unwatch(db, request.name.type, std::move(withdraw));
    if (result == TQ_MOM_OK) {
        for (const SubscriptionPtr &subscription : ended) {
            subscription->ended = true;
        }
        subscriptions_ = std::move(kept);
        subscription_changes_++;
    }
    return result;
}

void Front::subscription_watched(const SubscriptionPtr &subscription, int result)
{
    if (subscription->ended) {
        return;
    }
    if (result != TQ_MOM_OK) {
        delivery_.send_plain(subscription->to, TQ_MOM_SET, TQ_MOM_RECORD, result);
        return;
    }
    subscription->established = true;
    delivery_.send_plain(subscription->to, TQ_MOM_ESTABLISHED, TQ_MOM_RECORD, TQ_MOM_OK);
}

// ---- What was delivered ----

void Front::remember(uint32_t db, const ObjectType &type, const ProtobufCMessage &message, const Object &object)
{
    for (const SubscriptionPtr &subscription : subscriptions_) {
        if (subscription->db == db && subscription->type == &type && subscription->match.matches(message)) {
            auto &delivered = subscription->delivered;
            delivered.insert_or_assign(delivered.end(), object.key, object.value.bytes); // they come in order
        }
    }
}

// Requested right after the watch, so that the deletions are delivered before the
// answers to what the client requests once it is established.
void Front::find_missed_deletions(const SubscriptionPtr &subscription)
{
    const char *type = subscription->type->descriptor->name;
    auto report = [name = delivery_.name(), type](int result) {
        log_line(LogLevel::warn,
                 name + ": missed deletions of " + type + " cannot be delivered, result " + std::to_string(result));
    };
    auto listed = [subscription, report](Front &front, int result, const Snapshot &present) {
        if (result == TQ_MOM_OK) {
            front.deliver_missed_deletions(subscription, *present);
        } else {
            report(result);
        }
    };
    if (const int result = session_->scan(subscription->db, type, while_open(listed)); result != TQ_MOM_OK) {
        report(result);
    }
}

void Front::deliver_missed_deletions(const SubscriptionPtr &subscription, const std::vector<Object> &present)
{
    auto gone = subscription->delivered;
    for (const Object &object : present) {
        gone.erase(object.key);
    }
    const uint64_t epoch = databases_[subscription->db].epoch;
    for (const auto &[key, last] : gone) {
        if (!going(subscription->db, epoch) || subscription->ended) {
            return;
        }
        deliver_removal(subscription, key);
    }
}

// ---- Changes ----

void Front::changed(const Change &change)
{
    auto self = shared_from_this();
    const ObjectType *type = find_type(change.name.type);
    if (type == nullptr) {
        return; // a type of other processes; nobody here can have subscribed to it
    }
    const uint32_t db = change.name.db;
    const bool is_removed = change.kind == ChangeKind::removed;
    MessagePtr message = is_removed ? delivery_.build_removed(*type, db, change.name.key)
                                    : delivery_.build(*type, db, {change.name.key, change.value});
    if (!message) {
        return;
    }
    // Collected first: a callback may add subscriptions and end others.
    std::vector<SubscriptionPtr> concerned;
    for (const SubscriptionPtr &subscription : subscriptions_) {
        if (concerns(*subscription, type, change) && subscription->match.matches(*message)) {
            concerned.push_back(subscription);
        }
    }
    const uint64_t epoch = databases_[db].epoch;
    for (const SubscriptionPtr &subscription : concerned) {
        if (!going(db, epoch)) {
            return;
        }
        if (!subscription->ended) {
            deliver_change(subscription, change);
        }
    }
}

void Front::deliver_change(const SubscriptionPtr &subscription, const Change &change)
{
    if (change.kind == ChangeKind::removed) {
        deliver_removal(subscription, change.name.key);
        return;
    }
    MessagePtr message = delivery_.build(*subscription->type, change.name.db, {change.name.key, change.value});
    if (change.kind == ChangeKind::published) {
        delivery_.send_message(subscription->to, TQ_MOM_PUBLISH, *message);
        return;
    }
    subscription->delivered[change.name.key] = change.value.bytes;
    if (change.kind == ChangeKind::fields_set) {
        delivery_.send_hash(subscription->to, *message, change.fields);
    } else {
        delivery_.send_message(subscription->to, TQ_MOM_SET, *message);
    }
}

// A subscriber may need more of a removed object than its key, such as the port
// of a learned address, so it gets the object as it saw it last.
void Front::deliver_removal(const SubscriptionPtr &subscription, const std::string &key)
{
    const auto known = subscription->delivered.extract(key);
    MessagePtr message = known.empty() || known.mapped().empty()
                             ? delivery_.build_removed(*subscription->type, subscription->db, key)
                             : delivery_.build(*subscription->type, subscription->db, {key, {known.mapped(), {}}});
    if (message) {
        delivery_.send_message(subscription->to, TQ_MOM_DEL, *message);
    }
}

} // namespace vvl::mom
