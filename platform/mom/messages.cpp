// The registry of object types, and the packed forms of their objects. A keyless
// object is kept field by field: protobuf-c takes its packed form apart as
// unknown fields, so that no value is interpreted here.
#include "platform/mom/messages.h"

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"
#include "s_cluster.pb-c.h"
#include "u_bridge.pb-c.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <new>
#include <utility>

namespace vvl::mom
{
namespace
{

// Every message that is an object of its own; the others are only parts.
const ProtobufCMessageDescriptor *const object_descriptors[] = {
    &p_bridge__vvlan_glb_cfg__descriptor,   &p_bridge__vvlan_oui_cfg__descriptor,
    &p_bridge__vvlan_port_cfg__descriptor,  &p_bridge__vvlan_port_auto__descriptor,
    &p_bridge__vvlan_err_event__descriptor, &s_bridge__vvlan_port_noty__descriptor,
    &s_cluster__reg_pkt_info__descriptor,   &u_bridge__vvlan_join__descriptor,
    &u_bridge__vvlan_port_cfg__descriptor,  &u_bridge__vvlan_oui_cfg__descriptor,
    &u_bridge__mac_vid_reg__descriptor,     &u_bridge__mac_vid_reg_noti__descriptor,
};

// A message type without fields: whatever is unpacked as one are unknown fields,
// each with its number, its wire type and its bytes.
constexpr ProtobufCMessageDescriptor any_fields = {
    .magic = PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC,
    .name = "any_fields",
    .short_name = "any_fields",
    .c_name = "AnyFields",
    .package_name = "",
    .sizeof_message = sizeof(ProtobufCMessage),
    .n_fields = 0,
    .fields = nullptr,
    .fields_sorted_by_name = nullptr,
    .n_field_ranges = 0,
    .field_ranges = nullptr,
    .message_init = nullptr,
    .reserved1 = nullptr,
    .reserved2 = nullptr,
    .reserved3 = nullptr,
};

ObjectType describe(const ProtobufCMessageDescriptor *descriptor)
{
    ObjectType type{descriptor, nullptr};
    for (unsigned i = 0; i < descriptor->n_fields; i++) {
        if ((descriptor->fields[i].reserved_flags & TQ_MOM_OPTION_KEY) != 0) {
            type.key = &descriptor->fields[i];
        }
    }
    return type;
}

} // namespace

const ObjectType *find_type(std::string_view name)
{
    static const auto types = [] {
        std::array<ObjectType, std::size(object_descriptors)> described{};
        std::transform(std::begin(object_descriptors), std::end(object_descriptors), described.begin(), describe);
        return described;
    }();
    auto found = std::find_if(types.begin(), types.end(), [&](const auto &t) { return name == t.descriptor->name; });
    return found == types.end() ? nullptr : &*found;
}

MessagePtr make_message(const ProtobufCMessageDescriptor &descriptor)
{
    // From malloc, since that is where protobuf-c's own messages come from and
    // go to.
    void *memory = std::malloc(descriptor.sizeof_message);
    if (memory == nullptr) {
        throw std::bad_alloc();
    }
    auto *message = static_cast<ProtobufCMessage *>(memory);
    protobuf_c_message_init(&descriptor, message);
    return MessagePtr(message);
}

bool pack(const ProtobufCMessage &message, std::string &bytes)
{
    const size_t size = protobuf_c_message_get_packed_size(&message);
    if (size > object_size_max) {
        return false;
    }
    bytes.resize(size);
    protobuf_c_message_pack(&message, reinterpret_cast<uint8_t *>(bytes.data()));
    return true;
}

MessagePtr unpack(const ObjectType &type, const std::string &bytes)
{
    if (bytes.size() > object_size_max) {
        return nullptr;
    }
    const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
    return MessagePtr(protobuf_c_message_unpack(type.descriptor, nullptr, bytes.size(), data));
}

MessagePool::MessagePool(const ObjectType &type, size_t count)
    : type_(type),
      messages_(std::max<size_t>(1, count) * (type.descriptor->sizeof_message + alignof(std::max_align_t))),
      allocator_{allocate, [](void *, void *) {}, this}
{
}

void *MessagePool::allocate(void *pool, size_t size)
{
    auto *self = static_cast<MessagePool *>(pool);
    return (std::exchange(self->is_part_, true) ? self->parts_ : self->messages_).allocate(size);
}

const ProtobufCMessage *MessagePool::unpack(const std::string &bytes)
{
    if (bytes.size() > object_size_max) {
        return nullptr;
    }
    is_part_ = false;
    const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
    return protobuf_c_message_unpack(type_.descriptor, &allocator_, bytes.size(), data);
}

bool split_fields(const std::string &bytes, FieldMap &fields)
{
    const auto *data = reinterpret_cast<const uint8_t *>(bytes.data());
    const MessagePtr message(protobuf_c_message_unpack(&any_fields, nullptr, bytes.size(), data));
    if (!message) {
        return false;
    }
    for (unsigned i = 0; i < message->n_unknown_fields; i++) {
        ProtobufCMessageUnknownField &field = message->unknown_fields[i];
        if (field.tag == 0) { // protobuf-c lets the reserved number pass
            return false;
        }
        const ProtobufCMessage part{&any_fields, 1, &field};
        std::string packed(protobuf_c_message_get_packed_size(&part), '\0');
        protobuf_c_message_pack(&part, reinterpret_cast<uint8_t *>(packed.data()));
        fields[field.tag] += packed;
    }
    return true;
}

bool join_fields(const FieldMap &fields, std::string &bytes)
{
    for (const auto &[number, packed] : fields) {
        FieldMap parts;
        if (!split_fields(packed, parts) || (!packed.empty() && (parts.size() != 1 || !parts.contains(number)))) {
            return false;
        }
        bytes += packed;
    }
    return true;
}

} // namespace vvl::mom
