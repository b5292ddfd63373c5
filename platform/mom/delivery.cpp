// Records on their way to a client's callbacks. An object counts as malformed
// also where its own key is not the one that it is kept under: following it
// would make two objects of one.
#include "platform/mom/delivery.h"

#include "platform/base/log.h"

namespace vvl::mom
{

namespace
{

// The object's packed form. False where its fields are malformed.
bool packed_form(const ObjectType &type, const Object &object, std::string &joined, const std::string *&bytes)
{
    bytes = type.key == nullptr ? &joined : &object.value.bytes;
    return type.key != nullptr || join_fields(object.value.fields, joined);
}

bool has_its_key(const ObjectType &type, const ProtobufCMessage &message, const Object &object)
{
    std::string key;
    return type.key == nullptr || (encode_key(type, message, key) && key == object.key);
}

} // namespace

MessagePtr Delivery::build(const ObjectType &type, uint32_t db, const Object &object)
{
    std::string joined;
    const std::string *bytes = nullptr;
    MessagePtr message = packed_form(type, object, joined, bytes) ? unpack(type, *bytes) : nullptr;
    if (!message || !has_its_key(type, *message, object)) {
        count_malformed(type, db, object.key);
        return nullptr;
    }
    return message;
}

const ProtobufCMessage *Delivery::build_in(MessagePool &pool, const ObjectType &type, uint32_t db, const Object &object)
{
    std::string joined;
    const std::string *bytes = nullptr;
    const ProtobufCMessage *message = packed_form(type, object, joined, bytes) ? pool.unpack(*bytes) : nullptr;
    if (message == nullptr || !has_its_key(type, *message, object)) {
        count_malformed(type, db, object.key);
        return nullptr;
    }
    return message;
}

MessagePtr Delivery::build_removed(const ObjectType &type, uint32_t db, const std::string &key)
{
    MessagePtr message = decode_key(type, key);
    if (!message) {
        count_malformed(type, db, key);
    }
    return message;
}

void Delivery::count_malformed(const ObjectType &type, uint32_t db, const std::string &key)
{
    counters.malformed++;
    const std::string object = std::to_string(db) + " " + type.descriptor->name + ":" + key;
    if (malformed_logged_.size() < malformed_logged_max && malformed_logged_.insert(object).second) {
        log_line(LogLevel::error, name_ + ": object in database " + object + " is malformed and skipped");
    }
}

void Delivery::send_plain(const Receiver &to, int32_t operate, int32_t phase, int32_t error)
{
    tq_mom_record_t record{operate, nullptr, phase, error};
    send(to, record);
}

void Delivery::send_hash(const Receiver &to, const ProtobufCMessage &message, std::vector<uint32_t> fields)
{
    tq_mom_hash_t hash{const_cast<ProtobufCMessage *>(&message), fields.data(), static_cast<uint32_t>(fields.size()),
                       TQ_MOM_OK};
    tq_mom_record_t record{TQ_MOM_HSET, &hash, TQ_MOM_RECORD, TQ_MOM_OK};
    send(to, record);
}

} // namespace vvl::mom
