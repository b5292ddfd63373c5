// The registry of object types, and the little of protobuf's wire format that
// keyless objects need: such an object is kept field by field, so its packed
// form is taken apart at the tags and put together again. Values are never
// interpreted here.
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

// Wire types, the low three bits of a tag.
enum WireType : uint64_t { wire_varint = 0, wire_64bit = 1, wire_bytes = 2, wire_32bit = 5 };

constexpr size_t varint_size_max = 10;

// Reads a varint at offset and moves past it. False where it does not end.
bool read_varint(const std::string &bytes, size_t &offset, uint64_t &value)
{
    value = 0;
    for (size_t i = 0; i < varint_size_max && offset < bytes.size(); i++) {
        const auto byte = static_cast<uint8_t>(bytes[offset++]);
        value |= uint64_t{byte & 0x7fu} << (7 * i);
        if (byte < 0x80) {
            return true;
        }
    }
    return false;
}

// Moves from a field's tag past its value.
bool skip_field(const std::string &bytes, size_t &offset, uint32_t &number)
{
    uint64_t tag = 0;
    uint64_t size = 0;
    if (!read_varint(bytes, offset, tag) || tag >> 3 == 0 || tag >> 32 != 0) {
        return false;
    }
    number = static_cast<uint32_t>(tag >> 3);
    switch (tag & 7) {
    case wire_varint:
        return read_varint(bytes, offset, size);
    case wire_64bit:
        size = sizeof(uint64_t);
        break;
    case wire_32bit:
        size = sizeof(uint32_t);
        break;
    case wire_bytes:
        if (!read_varint(bytes, offset, size)) {
            return false;
        }
        break;
    default:
        return false;
    }
    if (size > bytes.size() - offset) {
        return false;
    }
    offset += size;
    return true;
}

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
    size_t offset = 0;
    while (offset < bytes.size()) {
        const size_t start = offset;
        uint32_t number = 0;
        if (!skip_field(bytes, offset, number)) {
            return false;
        }
        fields[number].append(bytes, start, offset - start);
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
