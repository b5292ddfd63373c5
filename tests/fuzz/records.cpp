#include "tests/fuzz/records.h"

#include "p_bridge.pb-c.h"

#include <string_view>

namespace vvl::test
{
namespace
{

constexpr size_t address_size = 6;

// By the name of a field, in whatever message it is. Others stay zero.
constexpr struct {
    std::string_view field;
    std::initializer_list<uint32_t> values;
} usual_values[] = {
    {"ifx", {1, 2, 3, 4, 5, 63, 64}},
    {"phyid", {257, 258, 259, 260, 261, 319, 320}},
    {"port_id", {1, 2, 3, 4, 5, 63, 64}},
    {"enable", {1, 1, 1, 0, 2}},
    {"mode", {1, 1, 0, 3}},
    {"vlan", {100, 100, 200, 0, 4095}},
    {"t_fid", {100, 200}},
    {"t_type", {0}},
    {"secu_mode", {0, 1}},
    {"age_time", {0, 1, 2, 1440, 65536}},
    {"cos", {6, 7, 255}},
    {"dscp", {46, 63, 256}},
};

uint32_t read_number(std::string_view field, ByteReader &in)
{
    const auto *row = std::find_if(std::begin(usual_values), std::end(usual_values),
                                   [&](const auto &candidate) { return candidate.field == field; });
    return row != std::end(usual_values) ? in.one_of(row->values) : 0;
}

template <typename T> void store(uint8_t *member, const T &value)
{
    std::memcpy(member, &value, sizeof value);
}

} // namespace

// An address of one of four makers, or the mask of a prefix; the rest of the
// size is zero.
ProtobufCBinaryData Records::address(bool is_mask)
{
    const uint32_t choice = in_.below(32);
    const size_t size = choice < 12 ? choice : address_size;
    if (missing()) {
        return {size, nullptr};
    }
    uint8_t whole[address_size] = {};
    const uint32_t kind = in_.u8();
    if (kind >= 0xf0) {
        const auto any = in_.bytes(address_size);
        std::copy(any.begin(), any.end(), whole);
    } else if (is_mask) {
        for (uint32_t bit = 0; bit < kind % (8 * address_size + 1); bit++) {
            whole[bit / 8] |= static_cast<uint8_t>(0x80 >> bit % 8);
        }
    } else {
        whole[2] = static_cast<uint8_t>(kind % 4);
        whole[5] = static_cast<uint8_t>(kind / 4 % 8);
    }
    uint8_t *bytes = block(size);
    std::copy_n(whole, std::min(size, address_size), bytes);
    return {size, bytes};
}

ProtobufCMessage *Records::message(const ProtobufCMessageDescriptor &type, bool is_mask)
{
    if (missing()) {
        return nullptr;
    }
    uint8_t *bytes = block(type.sizeof_message);
    auto *message = reinterpret_cast<ProtobufCMessage *>(bytes);
    protobuf_c_message_init(&type, message);
    for (const ProtobufCFieldDescriptor &field : std::span(type.fields, type.n_fields)) {
        uint8_t *member = bytes + field.offset;
        if (field.type == PROTOBUF_C_TYPE_UINT32) {
            store(member, read_number(field.name, in_));
        } else if (field.type == PROTOBUF_C_TYPE_BYTES) {
            store(member, address(is_mask));
        } else {
            const auto *part = static_cast<const ProtobufCMessageDescriptor *>(field.descriptor);
            store(member, this->message(*part, field.name == std::string_view("mask")));
        }
    }
    return message;
}

tq_mom_hash_t *Records::glb_hash()
{
    if (missing()) {
        return nullptr;
    }
    tq_mom_hash_t hash{};
    hash.message = message(p_bridge__vvlan_glb_cfg__descriptor);
    hash.count = in_.below(6);
    if (hash.count != 0 && !missing()) {
        hash.fields = reinterpret_cast<uint32_t *>(block(hash.count * sizeof(uint32_t)));
        for (uint32_t i = 0; i < hash.count; i++) {
            hash.fields[i] = in_.one_of({5, 6, 7, 8, 9, 0});
        }
    }
    hash.error = missing() ? static_cast<int32_t>(in_.u32()) : 0;
    return keep(hash);
}

tq_mom_record_t *Records::record(void *object)
{
    if (missing()) {
        return nullptr;
    }
    tq_mom_record_t record{};
    record.operate = static_cast<int32_t>(in_.one_of(
        {TQ_MOM_SET, TQ_MOM_SET, TQ_MOM_HSET, TQ_MOM_DEL, TQ_MOM_PUBLISH, TQ_MOM_WITHDRAWN, TQ_MOM_ESTABLISHED}));
    record.object = object;
    record.phase = static_cast<int32_t>(in_.one_of({0, 0, 0, 0, 1, 2, 3, 4}));
    record.error = missing() ? static_cast<int32_t>(in_.u32()) : 0;
    return keep(record);
}

} // namespace vvl::test
