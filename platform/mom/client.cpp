// The store's C functions, and the contexts that they work on.
//
// Each function finds the client of its context, keeps it alive for the call
// (its callbacks may detach it) and hands over to the front. Callers compiled
// without exceptions are behind these functions, so none may leave them:
// running out of memory becomes TQ_MOM_E_MEMORY here.
#include "platform/mom/client.h"

#include "platform/mom/front.h"

#include <map>
#include <new>

namespace
{

using vvl::mom::Front;
using vvl::mom::Receiver;

using Clients = std::map<void *, std::shared_ptr<Front>>;

Clients &clients()
{
    static Clients all;
    return all;
}

std::shared_ptr<Front> find_client(void *ctx)
{
    auto found = clients().find(ctx);
    return found == clients().end() ? nullptr : found->second;
}

// Runs an operation on the context's client and counts its refusal.
template <typename Operation> int call(void *ctx, Operation operation)
{
    const std::shared_ptr<Front> front = find_client(ctx);
    if (!front) {
        return TQ_MOM_E_INVALID;
    }
    int result = TQ_MOM_OK;
    try {
        result = operation(*front);
    } catch (const std::bad_alloc &) {
        result = TQ_MOM_E_MEMORY;
    }
    front->counters().refused += result != TQ_MOM_OK;
    return result;
}

} // namespace

namespace vvl::mom
{

int attach(void *ctx, Store &store, Loop &loop, const std::string &name, Preparation prepare)
{
    if (ctx == nullptr || find_client(ctx)) {
        return TQ_MOM_E_INVALID;
    }
    auto front = std::make_shared<Front>(ctx, name, std::move(prepare));
    front->open(store, loop);
    clients().emplace(ctx, std::move(front));
    return TQ_MOM_OK;
}

void detach(void *ctx)
{
    if (auto front = find_client(ctx)) {
        clients().erase(ctx);
        front->close();
    }
}

ClientCounters counters(void *ctx)
{
    const auto front = find_client(ctx);
    return front ? front->counters() : ClientCounters{};
}

int publish(void *ctx, uint32_t db, const ProtobufCMessage *object)
{
    return call(ctx, [&](Front &front) { return front.publish(db, object); });
}

int set_fields(void *ctx, uint32_t db, const ProtobufCMessage *object, const uint32_t *fields, uint32_t count,
               tq_mom_callback_t callback, void *user)
{
    return call(ctx, [&](Front &front) { return front.set_fields(db, object, fields, count, {callback, user}); });
}

int refuse_request(void *ctx, uint32_t db, uint32_t number)
{
    return call(ctx, [&](Front &front) { return front.refuse_request(db, number); });
}

int set_link(void *ctx, uint32_t db, bool up)
{
    return call(ctx, [&](Front &front) { return front.set_link(db, up); });
}

} // namespace vvl::mom

// ---- Connections ----

int tq_mom_client_connect_sync(void *ctx, uint32_t db)
{
    return call(ctx, [&](Front &front) { return front.connect_sync(db); });
}

int tq_mom_client_connect(void *ctx, uint32_t db, tq_mom_connect_cb_t callback, void *user)
{
    return call(ctx, [&](Front &front) { return front.connect(db, callback, user); });
}

int tq_mom_client_set_disconnect_cb(void *ctx, uint32_t db, tq_mom_disconnect_cb_t callback, void *)
{
    return call(ctx, [&](Front &front) { return front.set_disconnect_callback(db, callback); });
}

int tq_mom_client_set_reconnect_cb(void *ctx, uint32_t db, tq_mom_reconnect_cb_t callback, void *)
{
    return call(ctx, [&](Front &front) { return front.set_reconnect_callback(db, callback); });
}

// ---- Objects ----

int tq_mom_set(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user)
{
    return call(ctx, [&](Front &front) { return front.set(db, object, {}, {callback, user}); });
}

int tq_mom_del(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user)
{
    return call(ctx, [&](Front &front) { return front.del(db, object, {}, {callback, user}); });
}

ProtobufCMessage *tq_mom_get_sync(void *ctx, uint32_t db, const ProtobufCMessage *key, uint32_t *out)
{
    vvl::mom::MessagePtr object;
    const int result = call(ctx, [&](Front &front) { return front.get_sync(db, key, object); });
    if (out != nullptr) {
        *out = static_cast<uint32_t>(result);
    }
    return object.release();
}

void tq_mom_tq_obj_free(ProtobufCMessage *object)
{
    protobuf_c_message_free_unpacked(object, nullptr);
}

// ---- Scans and subscriptions ----

int tq_mom_scan(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                void *user)
{
    return call(ctx, [&](Front &front) { return front.scan(db, tmpl, flags, {callback, user}); });
}

int tq_mom_scan_sync(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                     void *user)
{
    return call(ctx, [&](Front &front) { return front.scan_sync(db, tmpl, flags, {callback, user}); });
}

int tq_mom_subscribe(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                     void *user)
{
    return call(ctx, [&](Front &front) { return front.subscribe(db, tmpl, flags, {callback, user}); });
}

int tq_mom_unsubscribe(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                       void *user)
{
    return call(ctx, [&](Front &front) { return front.unsubscribe(db, tmpl, flags, {callback, user}); });
}

int tq_mom_subscribe_field(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, const uint32_t *fields,
                           const tq_mom_callback_t *callbacks, void *const *users, uint32_t count)
{
    return call(ctx,
                [&](Front &front) { return front.subscribe_fields(db, tmpl, flags, fields, callbacks, users, count); });
}

// ---- Data-sync cycles ----

int tq_mom_clear_expire(void *ctx, uint32_t db, const ProtobufCMessage *key, tq_mom_callback_t callback, void *user)
{
    return call(ctx, [&](Front &front) { return front.clear_expire(db, key, {callback, user}); });
}

int tq_mom_dsbegin_sync(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry)
{
    return call(ctx, [&](Front &front) { return front.begin_cycle_sync(db, tmpl, flags, expiry); });
}

int tq_mom_dsbegin(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry,
                   tq_mom_callback_t callback, void *user)
{
    return call(ctx, [&](Front &front) { return front.begin_cycle(db, tmpl, flags, expiry, {}, {callback, user}); });
}

int tq_mom_dsend(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                 void *user)
{
    return call(ctx, [&](Front &front) { return front.end_cycle(db, tmpl, flags, {}, {callback, user}); });
}

// ---- Owned objects ----

int tq_mom_setow(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user,
                 uint64_t ow)
{
    return call(ctx, [&](Front &front) { return front.set(db, object, ow, {callback, user}); });
}

int tq_mom_del_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user,
                  uint64_t ow)
{
    return call(ctx, [&](Front &front) { return front.del(db, object, ow, {callback, user}); });
}

int tq_mom_dsbegin_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, uint32_t flags, uint64_t expiry,
                      tq_mom_callback_t callback, void *user, uint64_t ow)
{
    return call(ctx, [&](Front &front) { return front.begin_cycle(db, object, flags, expiry, ow, {callback, user}); });
}

int tq_mom_dsend_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, uint32_t flags, tq_mom_callback_t callback,
                    void *user, uint64_t ow)
{
    return call(ctx, [&](Front &front) { return front.end_cycle(db, object, flags, ow, {callback, user}); });
}
