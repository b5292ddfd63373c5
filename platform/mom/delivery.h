// Records on their way to a client's callbacks: built from what the store
// holds, delivered, and counted.
//
// Objects are kept packed and decoded again for each callback, so that no
// callback sees what another has done to its object. What the store holds may
// come from another process and is not trusted: an object that cannot be decoded
// is logged once with its key and skipped.
#pragma once

#include "platform/mom/client_types.h"
#include "platform/mom/keys.h"

#include <set>

namespace vvl::mom
{

constexpr size_t malformed_logged_max = 256; // objects that are remembered as logged; later ones are counted only

struct Receiver {
    tq_mom_callback_t callback = nullptr; // null: nobody is told
    void *user = nullptr;
};

class Delivery
{
  public:
    // name: of the client, for log lines.
    Delivery(void *ctx, std::string name) : ctx_(ctx), name_(std::move(name)) {}

    void *ctx() const { return ctx_; }
    const std::string &name() const { return name_; }

    // The stored object as a message, or null after counting and logging it.
    MessagePtr build(const ObjectType &type, uint32_t db, const Object &object);

    // The same as one of the pool's, which are of the object's type.
    const ProtobufCMessage *build_in(MessagePool &pool, const ObjectType &type, uint32_t db, const Object &object);

    // The object of a removal: a message with the key alone; null as above.
    MessagePtr build_removed(const ObjectType &type, uint32_t db, const std::string &key);

    // Each calls the receiver once. The client may be gone when they return.
    void send_plain(const Receiver &to, int32_t operate, int32_t phase, int32_t error);
    void send_message(const Receiver &to, int32_t operate, const ProtobufCMessage &message)
    {
        // Records are the same for all callbacks, which must not change them.
        tq_mom_record_t record{operate, const_cast<ProtobufCMessage *>(&message), TQ_MOM_RECORD, TQ_MOM_OK};
        send(to, record);
    }
    void send_hash(const Receiver &to, const ProtobufCMessage &message, std::vector<uint32_t> fields); // TQ_MOM_HSET

    ClientCounters counters;

  private:
    // Inline, since the scans of a start-up send millions of records.
    void send(const Receiver &to, tq_mom_record_t &record)
    {
        if (to.callback == nullptr) {
            return;
        }
        counters.delivered++;
        if (to.callback(ctx_, &record, to.user) != 0) {
            counters.callback_failures++;
        }
    }
    void count_malformed(const ObjectType &type, uint32_t db, const std::string &key);

    void *ctx_;
    std::string name_;
    std::set<std::string> malformed_logged_;
};

} // namespace vvl::mom
