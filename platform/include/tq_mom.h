/* Client of the object store (MOM).
 *
 * The store keeps protobuf messages in numbered databases. A message type with
 * a key field (option word 2) has one object per key; a type without one has a
 * single, keyless object that is kept as a hash of its fields.
 *
 * Rules that hold for every operation:
 * - Objects, keys and templates given to the store are read during the call
 *   only. Objects given to a callback live until it returns,
 *   and are not the callback's to change.
 * - Callbacks come from the event loop, one at a time, never from inside the
 *   call that caused them; the _sync operations are the exception. Order
 *   within a database is kept.
 * - Results are 0 or one of the codes below. A call that fails changes
 *   nothing. Nothing blocks for longer than TQ_MOM_SYNC_LIMIT_MS.
 * - ctx is the global context; db a database number, 0 to 15.
 * - Before the host unloads a module, it ends the module's connections and
 *   subscriptions. No callback comes afterwards.
 * - Flags other than those below, and of a cycle any but 0, are refused.
 * - An object whose key field is absent, or whose packed form is larger than
 *   TQ_MOM_OBJECT_SIZE_MAX, is refused with TQ_MOM_E_INVALID.
 */
#ifndef TQ_MOM_H
#define TQ_MOM_H

#include <protobuf-c/protobuf-c.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Operations (tq_mom_record_t::operate). */
#define TQ_MOM_SET 1          /* object written; object: the message */
#define TQ_MOM_DEL 3          /* object removed; object: the message as the subscriber saw it last, at least its key */
#define TQ_MOM_HSET 4         /* fields of a keyless object written; object: tq_mom_hash_t, here alone */
#define TQ_MOM_PUBLISH 24     /* message published, not stored; object: the message */
#define TQ_MOM_WITHDRAWN 28   /* unsubscribed: the subscriber withdraws its registration */
#define TQ_MOM_ESTABLISHED 29 /* subscription established */

/* Phases (tq_mom_record_t::phase). */
#define TQ_MOM_RECORD 0      /* ordinary record */
#define TQ_MOM_SCAN_OVER 1   /* a scan has delivered its last record */
#define TQ_MOM_CYCLE_OPEN 2  /* a data-sync cycle has been opened */
#define TQ_MOM_CYCLE_OPEN2 4 /* the same; reserved for stores that open in two steps */
#define TQ_MOM_NOTHING 3     /* an operation is done; nothing to do */

/* The data plane's own database. */
#define TQ_MOM_UDP_DB 8

/* Flags of subscriptions and scans. */
#define TQ_MOM_MATCH_ALL 0 /* every object of the template's type */
#define TQ_MOM_MATCH_FIELDS                                                                                            \
    2 /* match the key fields whose option word contains 1 and that the template gives non-zero */

/* Option words of message fields (ProtobufCFieldDescriptor::reserved_flags). */
#define TQ_MOM_OPTION_MATCH 1u
#define TQ_MOM_OPTION_KEY 2u
#define TQ_MOM_OPTION_MAC 32u

/* Results. */
#define TQ_MOM_OK 0
#define TQ_MOM_E_INVALID (-4)      /* null or malformed argument, object without its key, unknown type */
#define TQ_MOM_E_MEMORY (-6)       /* out of memory */
#define TQ_MOM_E_UNREACHABLE (-11) /* the database is not connected or did not answer in time */

/* Limits. */
#define TQ_MOM_OBJECT_SIZE_MAX 65536u /* bytes of an object's packed form */
#define TQ_MOM_SYNC_LIMIT_MS 1000u    /* longest time that a call takes */

typedef struct tq_mom_record {
    int32_t operate; /* one of the operations above */
    void *object;    /* see the operations; null where there is none */
    int32_t phase;   /* one of the phases above */
    int32_t error;   /* 0, or one of the results above */
} tq_mom_record_t;

/* Object of a TQ_MOM_HSET record. */
typedef struct tq_mom_hash {
    ProtobufCMessage *message; /* the whole object after the change */
    uint32_t *fields;          /* numbers of the fields that changed (on a scan: that are present) */
    uint32_t count;            /* of fields */
    int32_t error;             /* non-zero when the object could not be built; message is then null */
} tq_mom_hash_t;

/* user: as given with the call that registered the callback. Results are
 * counted and otherwise ignored. */
typedef int (*tq_mom_callback_t)(void *ctx, tq_mom_record_t *record, void *user);
typedef int (*tq_mom_connect_cb_t)(void *ctx, void *user);
typedef int (*tq_mom_disconnect_cb_t)(void *ctx, uint32_t db);
/* type 2: changes may have been missed; any other: none were. */
typedef int (*tq_mom_reconnect_cb_t)(void *ctx, uint32_t db, int32_t type);

/* ---- Connections ------------------------------------------------------- */

/* Connects to a database and waits for the result. Connecting a connected
 * database succeeds. */
int tq_mom_client_connect_sync(void *ctx, uint32_t db);

/* Arms the connection: callback comes once, as soon as the database is
 * connected (at once, from the loop, where it already is). */
int tq_mom_client_connect(void *ctx, uint32_t db, tq_mom_connect_cb_t callback, void *user);

/* Called when the connection is lost; replaces an earlier callback. */
int tq_mom_client_set_disconnect_cb(void *ctx, uint32_t db, tq_mom_disconnect_cb_t callback, void *user);

/* Called when a lost connection is back; replaces an earlier callback. After
 * type 2 the subscriber makes its subscriptions again and scans: changes made
 * in between were not delivered. After any other type nothing was missed. */
int tq_mom_client_set_reconnect_cb(void *ctx, uint32_t db, tq_mom_reconnect_cb_t callback, void *user);

/* ---- Objects ----------------------------------------------------------- */

/* Writes an object whole: no field of an earlier one survives. Clears a stale
 * mark. Of a keyless object, the fields that the message holds with a
 * non-default value are written and the others removed. callback (may be
 * null): one record with the operation, phase TQ_MOM_NOTHING, no object, and
 * the outcome in error. */
int tq_mom_set(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user);

/* Removes the object with this key; an absent one is no error. callback as of
 * tq_mom_set. */
int tq_mom_del(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user);

/* Reads the object with this key. Returns it, to be released with
 * tq_mom_tq_obj_free, or null where there is none or the call failed. out
 * (may be null) receives 0 or the failure's code as unsigned. */
ProtobufCMessage *tq_mom_get_sync(void *ctx, uint32_t db, const ProtobufCMessage *key, uint32_t *out);

/* Releases an object of tq_mom_get_sync; null is allowed. */
void tq_mom_tq_obj_free(ProtobufCMessage *object);

/* ---- Scans and subscriptions ------------------------------------------- */

/* Takes a snapshot, at the time of the call, of the objects that the template matches and delivers each
 * as TQ_MOM_SET (a keyless one as TQ_MOM_HSET) with phase 0, then one record
 * with phase TQ_MOM_SCAN_OVER, operate TQ_MOM_SET and no object. Changes made
 * before the call are delivered before the snapshot, later ones after it. A
 * scan that fails later on delivers one record with the error, and no end. */
int tq_mom_scan(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                void *user);

/* The same before the call returns, without the last record. It overtakes the
 * changes that are on their way. */
int tq_mom_scan_sync(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                     void *user);

/* Delivers TQ_MOM_ESTABLISHED, then a record for each change of an object
 * that the template matches. A subscription is identified by database, type,
 * matched key, callback and user; making it again replaces it, establishes it
 * again, and then delivers TQ_MOM_DEL for each object that it, or a scan of
 * the same client, had delivered before and that exists no more. After a lost
 * connection (reconnect type 2) it is silent until it is made again. */
int tq_mom_subscribe(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                     void *user);

/* Ends the subscription with the same arguments and delivers
 * TQ_MOM_WITHDRAWN once, and nothing else from then on. Field subscriptions
 * with the same arguments end as well, each with its own TQ_MOM_WITHDRAWN.
 * Where there is none, succeeds and delivers nothing. */
int tq_mom_unsubscribe(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                       void *user);

/* Subscribes to single fields of a keyless object: callbacks[i] with users[i]
 * is told when fields[i] is among the fields that changed. Each field is a
 * subscription of its own, and is established by itself. TQ_MOM_HSET alone
 * carries a tq_mom_hash_t; with TQ_MOM_DEL, which comes when the object with this
 * field was removed, the object is a message. The arrays hold count entries and
 * are copied. */
int tq_mom_subscribe_field(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, const uint32_t *fields,
                           const tq_mom_callback_t *callbacks, void *const *users, uint32_t count);

/* ---- Data-sync cycles (mark and sweep) --------------------------------- */

/* Clears the stale mark of one object; an absent one is no error. */
int tq_mom_clear_expire(void *ctx, uint32_t db, const ProtobufCMessage *key, tq_mom_callback_t callback, void *user);

/* Marks every object of the type stale. A set or tq_mom_clear_expire unmarks
 * one. Opening a cycle again starts it over; a cycle that is never closed
 * removes nothing. The marks are the store's: they outlive the client, and
 * whoever writes an object unmarks it. expiry is for the store's information. */
int tq_mom_dsbegin_sync(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry);

/* The same; answers with one record of phase TQ_MOM_CYCLE_OPEN, or of phase
 * TQ_MOM_NOTHING with the error where the cycle could not be opened. */
int tq_mom_dsbegin(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, uint64_t expiry,
                   tq_mom_callback_t callback, void *user);

/* Closes the cycle: removes, with notifications, what is still marked.
 * callback (may be null): one record of phase TQ_MOM_NOTHING when it is done. */
int tq_mom_dsend(void *ctx, uint32_t db, const ProtobufCMessage *tmpl, uint32_t flags, tq_mom_callback_t callback,
                 void *user);

/* ---- Owned objects ----------------------------------------------------- */

/* ow is an owner's id. An object lives while any owner holds it: setow takes
 * hold of it, del_ow lets go, the last to let go removes it. tq_mom_set makes
 * it live without an owner, until tq_mom_del, which removes it whoever holds
 * it; so does the sweep of a cycle without an owner. The cycle of one owner
 * marks and sweeps that owner's holds only, and only that owner's setow or
 * tq_mom_clear_expire unmarks one. Otherwise as the operations without _ow. */
int tq_mom_setow(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user,
                 uint64_t ow);
int tq_mom_del_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, tq_mom_callback_t callback, void *user,
                  uint64_t ow);
int tq_mom_dsbegin_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, uint32_t flags, uint64_t expiry,
                      tq_mom_callback_t callback, void *user, uint64_t ow);
int tq_mom_dsend_ow(void *ctx, uint32_t db, const ProtobufCMessage *object, uint32_t flags, tq_mom_callback_t callback,
                    void *user, uint64_t ow);

#ifdef __cplusplus
}
#endif
#endif
