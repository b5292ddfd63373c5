// The object types that the platform knows, by full name, and their packed
// forms.
//
// A module brings its own copy of every descriptor and takes it away when it
// is unloaded. So a caller's message is packed at the edge and identified by
// its descriptor's name; from there on only the platform's own descriptors,
// found here, are used.
#pragma once

#include "platform/mom/store.h"

#include <cstring>
#include <memory>
#include <memory_resource>
#include <string>
#include <string_view>

namespace vvl::mom
{

// One type of stored object. Lives as long as the process.
struct ObjectType {
    const ProtobufCMessageDescriptor *descriptor; // the platform's own
    const ProtobufCFieldDescriptor *key;          // the field with TQ_MOM_OPTION_KEY; null: keyless
};

struct MessageFree {
    void operator()(ProtobufCMessage *message) const { protobuf_c_message_free_unpacked(message, nullptr); }
};
using MessagePtr = std::unique_ptr<ProtobufCMessage, MessageFree>;

// The type of this full name ("p_bridge.vvlan_port_cfg"), or null.
const ObjectType *find_type(std::string_view name);

// An empty message, with memory of its own, that MessageFree releases.
MessagePtr make_message(const ProtobufCMessageDescriptor &descriptor);

// Packs a message of any descriptor, also a module's. False where the packed
// form is larger than object_size_max.
bool pack(const ProtobufCMessage &message, std::string &bytes);

// Null where the bytes are too many or not a message of the type.
MessagePtr unpack(const ObjectType &type, const std::string &bytes);

// Messages of one type that are freed together. They are contiguous in memory and
// their parts are elsewhere, so that a walk that reads little of each message
// stays in the cache.
class MessagePool
{
  public:
    MessagePool(const ObjectType &type, size_t count);

    // As unpack; the message is the pool's.
    const ProtobufCMessage *unpack(const std::string &bytes);

  private:
    static void *allocate(void *pool, size_t size);

    const ObjectType &type_;
    std::pmr::monotonic_buffer_resource messages_;
    std::pmr::monotonic_buffer_resource parts_;
    bool is_part_ = false; // protobuf-c allocates a message first, then its parts
    ProtobufCAllocator allocator_;
};

// Takes a packed message apart. False where the bytes are malformed.
bool split_fields(const std::string &bytes, FieldMap &fields);

// Puts a keyless object's fields together. False where an entry is not a field
// of its number.
bool join_fields(const FieldMap &fields, std::string &bytes);

// A member's value, copied out of or into its message, which need not be
// aligned for it; Member is the member's C type.
template <typename Member> Member get_member(const ProtobufCMessage &message, const ProtobufCFieldDescriptor &field)
{
    Member value;
    // A member may be a pointer, and then it is the pointer that is copied.
    // NOLINTNEXTLINE(bugprone-sizeof-expression)
    std::memcpy(&value, reinterpret_cast<const char *>(&message) + field.offset, sizeof value);
    return value;
}

template <typename Member>
void set_member(ProtobufCMessage &message, const ProtobufCFieldDescriptor &field, const Member &value)
{
    // NOLINTNEXTLINE(bugprone-sizeof-expression): as above
    std::memcpy(reinterpret_cast<char *>(&message) + field.offset, &value, sizeof value);
}

} // namespace vvl::mom
