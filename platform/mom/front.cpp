// The front: connections, objects, scans and cycles of one client.
//
// A caller's message is checked completely before the store hears of it:
// database, type, size, key, in this order, so that a refused call has changed
// nothing.
#include "platform/mom/front.h"

#include "platform/base/log.h"

namespace vvl::mom
{

void Front::open(Store &store, Loop &loop)
{
    session_ = store.open(loop, *this, delivery_.name());
}

void Front::close()
{
    session_.reset();
    subscriptions_.clear();
}

// ---- Reading what a caller gives ----

int Front::check_db(uint32_t db)
{
    if (db >= database_count) {
        return TQ_MOM_E_INVALID;
    }
    Database &database = databases_[db];
    if (!database.asked_for) {
        if (!database.refusal_logged) {
            database.refusal_logged = true;
            log_line(LogLevel::error, delivery_.name() + ": database " + std::to_string(db) +
                                          " was never connected; operations on it are refused");
        }
        return TQ_MOM_E_UNREACHABLE;
    }
    return TQ_MOM_OK;
}

int Front::refuse(const ProtobufCMessage &object, const std::string &why) const
{
    log_line(LogLevel::error, delivery_.name() + ": object " + object.descriptor->name + " " + why);
    return TQ_MOM_E_INVALID;
}

int Front::read_template(uint32_t db, const ProtobufCMessage *tmpl, Request &request)
{
    if (const int result = check_db(db); result != TQ_MOM_OK) {
        return result;
    }
    if (databases_[db].refused != 0 && --databases_[db].refused == 0) {
        return TQ_MOM_E_UNREACHABLE;
    }
    if (tmpl == nullptr || tmpl->descriptor == nullptr ||
        tmpl->descriptor->magic != PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC) {
        return TQ_MOM_E_INVALID;
    }
    request.type = find_type(tmpl->descriptor->name);
    if (request.type == nullptr) {
        return refuse(*tmpl, "is not an object type of the store");
    }
    if (!pack(*tmpl, request.bytes)) {
        return refuse(*tmpl, "is larger than " + std::to_string(object_size_max) + " bytes and refused");
    }
    // The caller's descriptor may be a module's; from here on the message is
    // one of the platform's.
    request.message = unpack(*request.type, request.bytes);
    if (!request.message) {
        return TQ_MOM_E_INVALID;
    }
    request.name = {db, request.type->descriptor->name, {}};
    return TQ_MOM_OK;
}

int Front::read_object(uint32_t db, const ProtobufCMessage *object, Request &request)
{
    const int result = read_template(db, object, request);
    if (result == TQ_MOM_OK && !encode_key(*request.type, *request.message, request.name.key)) {
        return refuse(*object, "has no key, or one that is too long, and is refused");
    }
    return result;
}

int Front::read_match(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to, Request &request)
{
    if (to.callback == nullptr || (flags != TQ_MOM_MATCH_ALL && flags != TQ_MOM_MATCH_FIELDS)) {
        return TQ_MOM_E_INVALID;
    }
    return read_template(db, tmpl, request);
}

int Front::read_cycle(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Request &request)
{
    return flags == TQ_MOM_MATCH_ALL ? read_template(db, tmpl, request) : TQ_MOM_E_INVALID;
}

bool Front::take_value(Request &request, Value &value)
{
    if (request.type->key == nullptr) {
        return split_fields(request.bytes, value.fields);
    }
    value.bytes = std::move(request.bytes);
    return true;
}

bool Front::has_field(const ObjectType &type, uint32_t number)
{
    return protobuf_c_message_descriptor_get_field(type.descriptor, number) != nullptr;
}

Done Front::answer(Receiver to, int32_t operate, int32_t phase)
{
    if (to.callback == nullptr) {
        return {};
    }
    return while_open([to, operate, phase](Front &front, int result) {
        // A cycle that could not be opened must not look open.
        front.delivery_.send_plain(to, operate, result == TQ_MOM_OK ? phase : TQ_MOM_NOTHING, result);
    });
}

// ---- Connections ----

int Front::connect_sync(uint32_t db)
{
    if (db >= database_count) {
        return TQ_MOM_E_INVALID;
    }
    databases_[db].asked_for = true;
    return session_->connect_now(db);
}

int Front::connect(uint32_t db, tq_mom_connect_cb_t callback, void *user)
{
    if (db >= database_count || callback == nullptr) {
        return TQ_MOM_E_INVALID;
    }
    databases_[db].asked_for = true;
    return session_->connect(db, while_open([db, callback, user](Front &front) {
                                 front.prepare(db);
                                 if (callback(front.delivery_.ctx(), user) != 0) {
                                     front.delivery_.counters.callback_failures++;
                                 }
                             }));
}

void Front::prepare(uint32_t db)
{
    if (prepare_) {
        prepare_(db, *session_);
    }
}

int Front::set_disconnect_callback(uint32_t db, tq_mom_disconnect_cb_t callback)
{
    if (db >= database_count) {
        return TQ_MOM_E_INVALID;
    }
    databases_[db].on_disconnect = callback;
    return TQ_MOM_OK;
}

int Front::set_reconnect_callback(uint32_t db, tq_mom_reconnect_cb_t callback)
{
    if (db >= database_count) {
        return TQ_MOM_E_INVALID;
    }
    databases_[db].on_reconnect = callback;
    return TQ_MOM_OK;
}

int Front::set_link(uint32_t db, bool up)
{
    if (const int result = check_db(db); result != TQ_MOM_OK) {
        return result;
    }
    if (!up) {
        databases_[db].epoch++;
    }
    return session_->set_link(db, up);
}

int Front::refuse_request(uint32_t db, uint32_t number)
{
    const int result = check_db(db);
    if (result == TQ_MOM_OK) {
        databases_[db].refused = number;
    }
    return result;
}

void Front::link_lost(uint32_t db)
{
    auto self = shared_from_this();
    databases_[db].epoch++;
    if (databases_[db].on_disconnect != nullptr && databases_[db].on_disconnect(delivery_.ctx(), db) != 0) {
        delivery_.counters.callback_failures++;
    }
}

void Front::link_back(uint32_t db, bool missed)
{
    auto self = shared_from_this();
    if (missed) {
        for (const SubscriptionPtr &subscription : subscriptions_) {
            subscription->established = subscription->established && subscription->db != db;
        }
        prepare(db);
    }
    const int32_t type = missed ? reconnect_missed : reconnect_complete;
    if (databases_[db].on_reconnect != nullptr && databases_[db].on_reconnect(delivery_.ctx(), db, type) != 0) {
        delivery_.counters.callback_failures++;
    }
}

// ---- Objects ----

int Front::set(uint32_t db, const ProtobufCMessage *object, Owner owner, Receiver to)
{
    Request request;
    if (const int result = read_object(db, object, request); result != TQ_MOM_OK) {
        return result;
    }
    Value value;
    if (!take_value(request, value)) {
        return TQ_MOM_E_INVALID;
    }
    return session_->write(request.name, value, WriteMode::replace, owner, answer(to, TQ_MOM_SET, TQ_MOM_NOTHING));
}

int Front::set_fields(uint32_t db, const ProtobufCMessage *object, const uint32_t *fields, uint32_t count, Receiver to)
{
    Request request;
    if (const int result = read_template(db, object, request); result != TQ_MOM_OK) {
        return result;
    }
    FieldMap given;
    if (request.type->key != nullptr || fields == nullptr || count == 0 || !split_fields(request.bytes, given)) {
        return TQ_MOM_E_INVALID;
    }
    Value value;
    for (uint32_t i = 0; i < count; i++) {
        if (!has_field(*request.type, fields[i])) {
            return TQ_MOM_E_INVALID;
        }
        // A field that was not packed has its default value: an empty entry.
        value.fields[fields[i]] = given[fields[i]];
    }
    return session_->write(request.name, value, WriteMode::merge, {}, answer(to, TQ_MOM_SET, TQ_MOM_NOTHING));
}

int Front::del(uint32_t db, const ProtobufCMessage *object, Owner owner, Receiver to)
{
    Request request;
    if (const int result = read_object(db, object, request); result != TQ_MOM_OK) {
        return result;
    }
    return session_->remove(request.name, owner, answer(to, TQ_MOM_DEL, TQ_MOM_NOTHING));
}

int Front::publish(uint32_t db, const ProtobufCMessage *object)
{
    Request request;
    if (const int result = read_object(db, object, request); result != TQ_MOM_OK) {
        return result;
    }
    Value value;
    if (!take_value(request, value)) {
        return TQ_MOM_E_INVALID;
    }
    return session_->publish(request.name, value, {});
}

int Front::get_sync(uint32_t db, const ProtobufCMessage *key, MessagePtr &object)
{
    Request request;
    if (const int result = read_object(db, key, request); result != TQ_MOM_OK) {
        return result;
    }
    std::optional<Value> value;
    const int result = session_->read_now(request.name, value);
    if (result != TQ_MOM_OK || !value) {
        return result;
    }
    object = delivery_.build(*request.type, db, {request.name.key, *value});
    return object ? TQ_MOM_OK : TQ_MOM_E_INVALID;
}

// ---- Scans ----

int Front::scan(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to)
{
    Request request;
    if (const int result = read_match(db, tmpl, flags, to, request); result != TQ_MOM_OK) {
        return result;
    }
    Match match(*request.type, *request.message, flags);
    auto deliver = [db, type = request.type, match, to,
                    cache = scan_cache(db, *request.type)](Front &front, int result, const Snapshot &snapshot) {
        const uint64_t epoch = front.databases_[db].epoch;
        // No end record after a failure: its receiver would take what it has
        // seen as complete, and sweep the rest.
        if (result != TQ_MOM_OK) {
            front.delivery_.send_plain(to, TQ_MOM_SET, TQ_MOM_RECORD, result);
            return;
        }
        front.deliver_objects(db, *type, cache->choose(front.delivery_, db, snapshot, match), to);
        if (front.going(db, epoch)) {
            front.delivery_.send_plain(to, TQ_MOM_SET, TQ_MOM_SCAN_OVER, TQ_MOM_OK);
        }
    };
    return session_->scan(db, request.name.type, while_open(std::move(deliver)));
}

int Front::scan_sync(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Receiver to)
{
    Request request;
    if (const int result = read_match(db, tmpl, flags, to, request); result != TQ_MOM_OK) {
        return result;
    }
    std::vector<Object> objects;
    const int result = session_->scan_now(db, request.name.type, objects);
    if (result == TQ_MOM_OK) {
        const auto snapshot = std::make_shared<const std::vector<Object>>(std::move(objects));
        ScanCache cache(*request.type);
        const Match match(*request.type, *request.message, flags);
        deliver_objects(db, *request.type, cache.choose(delivery_, db, snapshot, match), to);
    }
    return result;
}

std::shared_ptr<ScanCache> Front::scan_cache(uint32_t db, const ObjectType &type)
{
    std::weak_ptr<ScanCache> &known = scan_caches_[{db, &type}];
    std::shared_ptr<ScanCache> cache = known.lock();
    if (!cache) {
        cache = std::make_shared<ScanCache>(type);
        known = cache;
    }
    return cache;
}

// A scanned object counts as delivered to the client's subscriptions. It is
// remembered before its callback runs, since callbacks change subscriptions.
void Front::deliver_objects(uint32_t db, const ObjectType &type, ScanCache::Chosen &chosen, Receiver to)
{
    const uint64_t epoch = databases_[db].epoch;
    const uint64_t changes_before = subscription_changes_;
    for (size_t i = 0; i < chosen.messages.size(); i++) {
        if (!going(db, epoch)) {
            return;
        }
        if (chosen.remembered != subscription_changes_) {
            remember(db, type, *chosen.messages[i], *chosen.objects[i]);
        }
        if (type.key != nullptr) {
            delivery_.send_message(to, TQ_MOM_SET, *chosen.messages[i]);
            continue;
        }
        std::vector<uint32_t> fields;
        for (const auto &field : chosen.objects[i]->value.fields) {
            fields.push_back(field.first);
        }
        delivery_.send_hash(to, *chosen.messages[i], std::move(fields));
    }
    chosen.remembered = changes_before;
}

// ---- Data-sync cycles ----

int Front::clear_expire(uint32_t db, const ProtobufCMessage *key, Receiver to)
{
    Request request;
    if (const int result = read_object(db, key, request); result != TQ_MOM_OK) {
        return result;
    }
    return session_->unmark(request.name, answer(to, TQ_MOM_SET, TQ_MOM_NOTHING));
}

int Front::begin_cycle_sync(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry)
{
    Request request;
    if (const int result = read_cycle(db, tmpl, flags, request); result != TQ_MOM_OK) {
        return result;
    }
    return session_->begin_cycle_now(db, request.name.type, {}, expiry);
}

int Front::begin_cycle(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry, Owner owner,
                       Receiver to)
{
    Request request;
    if (const int result = read_cycle(db, tmpl, flags, request); result != TQ_MOM_OK) {
        return result;
    }
    return session_->begin_cycle(db, request.name.type, owner, expiry, answer(to, TQ_MOM_SET, TQ_MOM_CYCLE_OPEN));
}

int Front::end_cycle(uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, Owner owner, Receiver to)
{
    Request request;
    if (const int result = read_cycle(db, tmpl, flags, request); result != TQ_MOM_OK) {
        return result;
    }
    return session_->end_cycle(db, request.name.type, owner, answer(to, TQ_MOM_DEL, TQ_MOM_NOTHING));
}

} // namespace vvl::mom
