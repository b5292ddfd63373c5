// The record that every object store fits behind, and what it tells the front.
//
// A store knows databases, type names, key strings and bytes; messages, keys,
// templates and subscriptions are the front's. It is shaped for a store in
// another process, which can be slow or lost: a request is accepted now and
// completes later, changes arrive as events, and a scan completes with a
// snapshot. The synchronous forms are the exception: they overtake what is on its
// way.
//
// One order per session and database: completions and changes come in the
// order in which the store carried the requests and changes out. A snapshot is
// one point of that order: a change made before it comes before it and shows
// in it, a later one comes after it and does not. So a client that scans and then
// follows the changes misses none.
#pragma once

#include "platform/base/loop.h"
#include "tq_mom.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vvl::mom
{

constexpr uint32_t database_count = 16;                    // numbers 0 to 15
constexpr size_t database_object_count_max = 65536;        // objects in one database; a write of one more is refused
constexpr size_t object_size_max = TQ_MOM_OBJECT_SIZE_MAX; // bytes of an object's packed form

// A keyless object: field number to the field as packed, tag included. An
// empty string stands for a field that was written with its default value,
// which the packed form of proto3 cannot say.
using FieldMap = std::map<uint32_t, std::string>;

// Names one object, or with an empty key a keyless one. The key is the text of
// keys.h, so that "TYPE:KEY" in a store is readable.
struct Name {
    uint32_t db = 0;
    std::string type; // full name, "p_bridge.vvlan_port_cfg"
    std::string key;
};

// One of the two is in use: bytes of an object with a key, fields of one
// without.
struct Value {
    std::string bytes;
    FieldMap fields;
};

struct Object {
    std::string key;
    Value value;
};

enum class ChangeKind { set, fields_set, removed, published };

struct Change {
    ChangeKind kind = ChangeKind::set;
    Name name;
    Value value;                  // the whole object after the change; empty for removed
    std::vector<uint32_t> fields; // keyless: numbers written or removed, ascending
};

// The owner on whose behalf a request is made; none for the plain operations.
using Owner = std::optional<uint64_t>;

// result: 0 or a code of tq_mom.h.
using Done = std::function<void(int result)>;

// The objects of a type at one point. Scans that waited at the same time may
// share one.
using Snapshot = std::shared_ptr<const std::vector<Object>>;
// The snapshot is null where the result is not 0.
using Listed = std::function<void(int result, const Snapshot &snapshot)>;

enum class WriteMode {
    replace, // the object is the value, whole
    merge,   // keyless only: the other fields stay
};

// Told by a session, always from the loop. The session may be destroyed from
// inside any of these calls; their arguments live until the call returns.
class SessionEvents
{
  public:
    virtual ~SessionEvents() = default;

    // The connection to a database was lost.
    virtual void link_lost(uint32_t db) = 0;

    // It is back. missed: changes were made that this session was not told of;
    // its watches are gone. Otherwise they go on.
    virtual void link_back(uint32_t db, bool missed) = 0;

    // A watched type has changed.
    virtual void changed(const Change &change) = 0;
};

// One client's connections to a store.
//
// Every request returns 0 where it is accepted, or the code of its refusal,
// TQ_MOM_E_UNREACHABLE above all; a refused request changes nothing and does
// not complete. An accepted one completes once, from the loop, unless the link
// is cut or the session destroyed first; then it is silent. The completion may
// be empty, and may destroy the session. A request's changes come before its
// completion. Arguments are read during the call. db is below database_count.
class Session
{
  public:
    virtual ~Session() = default;

    // ---- Connections ----

    // Waits for the connection, TQ_MOM_SYNC_LIMIT_MS at most.
    virtual int connect_now(uint32_t db) = 0;

    // Completes as soon as the database is connected. Unlike other requests it
    // outlives a lost connection.
    virtual int connect(uint32_t db, std::function<void()> done) = 0;

    // Fault injection: cuts the connection, or lets it come back with changes
    // missed. What is on its way at the cut is dropped.
    virtual int set_link(uint32_t db, bool up) = 0;

    // ---- Objects ----

    // Writes and tells the watchers, in one step. An owner takes hold of the
    // object; without one the object lives until it is removed. Clears the
    // object's stale mark, and the one of this owner's hold.
    virtual int write(const Name &name, const Value &value, WriteMode mode, Owner owner, Done done) = 0;

    // Without an owner: removes the object, whoever holds it. With one: lets
    // go of it, and removes it where nobody else holds it and it was not
    // written without an owner. An absent object or hold is no error.
    virtual int remove(const Name &name, Owner owner, Done done) = 0;

    // Tells the watchers of the value; stores nothing.
    virtual int publish(const Name &name, const Value &value, Done done) = 0;

    // Waits for the object; value is empty where there is none.
    virtual int read_now(const Name &name, std::optional<Value> &value) = 0;

    // ---- Whole types ----

    virtual int scan(uint32_t db, const std::string &type, Listed listed) = 0;
    virtual int scan_now(uint32_t db, const std::string &type, std::vector<Object> &objects) = 0;

    // Changes of the type that are carried out after this one come to
    // SessionEvents. Watching a watched type changes nothing and completes in
    // its turn.
    virtual int watch(uint32_t db, const std::string &type, Done done) = 0;
    virtual int unwatch(uint32_t db, const std::string &type, Done done) = 0;

    // ---- Data-sync cycles: the marks are the store's, not the session's ----

    // Marks every object of the type (with an owner: every hold of it) stale.
    // expiry is for a store that shows it; nothing expires by itself.
    virtual int begin_cycle(uint32_t db, const std::string &type, Owner owner, uint64_t expiry, Done done) = 0;
    virtual int begin_cycle_now(uint32_t db, const std::string &type, Owner owner, uint64_t expiry) = 0;

    // Clears the object's mark and those of all its holds.
    virtual int unmark(const Name &name, Done done) = 0;

    // Removes what is still marked (with an owner: lets go of it) and tells
    // the watchers, in one step.
    virtual int end_cycle(uint32_t db, const std::string &type, Owner owner, Done done) = 0;
};

class Store
{
  public:
    virtual ~Store() = default;

    // Opens a session with no database connected. All arguments and the store
    // outlive it. name is for log lines.
    virtual std::unique_ptr<Session> open(Loop &loop, SessionEvents &events, const std::string &name) = 0;
};

} // namespace vvl::mom
