// Stored objects with any bytes on their way to a subscriber: one that cannot
// be built is counted and skipped, one that can be is a message that packs
// again. A keyless object taken apart into fields and joined is the same. A text
// that is read as a key is the text that this key is written as, and any object's
// key is read back as the same key.
#include "platform/base/log.h"
#include "platform/mom/delivery.h"
#include "tests/fuzz/byte_reader.h"

namespace vvl::test
{
namespace
{

constexpr const char *keyed[] = {"p_bridge.vvlan_oui_cfg", "p_bridge.vvlan_port_cfg", "s_cluster.reg_pkt_info",
                                 "u_bridge.vvlan_oui_cfg", "u_bridge.mac_vid_reg_noti"};
constexpr const char *keyless[] = {"p_bridge.vvlan_glb_cfg", "p_bridge.vvlan_err_event"};

int read_through(void *, tq_mom_record_t *record, void *)
{
    std::string bytes;
    require(record->object != nullptr, "a set has its object");
    mom::pack(*static_cast<const ProtobufCMessage *>(record->object), bytes);
    return 0;
}

void deliver(mom::Delivery &delivery, const mom::ObjectType &type, const mom::Object &object)
{
    const uint64_t malformed = delivery.counters.malformed;
    mom::MessagePtr message = delivery.build(type, 4, object);
    require((message == nullptr) == (delivery.counters.malformed == malformed + 1), "what is skipped is counted");
    if (message) {
        delivery.send_message({read_through, nullptr}, TQ_MOM_SET, *message);
    }
}

void read_key(ByteReader &in)
{
    const mom::ObjectType &type = *mom::find_type(keyed[in.u8() % std::size(keyed)]);
    const std::string text = in.text();
    const mom::MessagePtr object = mom::decode_key(type, text);
    std::string again;
    require(!object || (mom::encode_key(type, *object, again) && again == text), "a text and its key are one to one");
}

void check_key(const mom::ObjectType &type, const ProtobufCMessage &object, const std::string &key)
{
    require(key.size() <= mom::key_size_max, "a key is not longer than the limit");
    const mom::MessagePtr read = mom::decode_key(type, key);
    std::string again;
    require(read && mom::encode_key(type, *read, again) && again == key, "a key is read back");
    require(mom::Match(type, object, TQ_MOM_MATCH_FIELDS).matches(object), "an object matches itself");
}

void deliver_keyed(ByteReader &in)
{
    mom::Delivery delivery(nullptr, "fuzz");
    const mom::ObjectType &type = *mom::find_type(keyed[in.u8() % std::size(keyed)]);
    mom::Object object{in.text(in.u8() % 32), {}};
    object.value.bytes = in.text();
    deliver(delivery, type, object);
    // The same under its own key, where it has one: that one is not skipped.
    const mom::MessagePtr message = mom::unpack(type, object.value.bytes);
    if (message && mom::encode_key(type, *message, object.key)) {
        check_key(type, *message, object.key);
        deliver(delivery, type, object);
        require(delivery.counters.delivered != 0, "an object under its own key is delivered");
    }
    delivery.build_removed(type, 4, object.key);
}

void deliver_keyless(ByteReader &in)
{
    mom::Delivery delivery(nullptr, "fuzz");
    const mom::ObjectType &type = *mom::find_type(keyless[in.u8() % std::size(keyless)]);
    mom::Object object;
    for (uint32_t count = in.below(4); count > 0; count--) {
        const uint32_t number = in.one_of({5, 6, 7, 8, 9});
        object.value.fields[number] = in.text(in.u8() % 16);
    }
    deliver(delivery, type, object);

    mom::FieldMap fields;
    if (mom::split_fields(in.text(), fields)) {
        std::string joined;
        mom::FieldMap again;
        require(mom::join_fields(fields, joined) && mom::split_fields(joined, again) && again == fields,
                "fields that were taken apart go together again");
    }
}

} // namespace
} // namespace vvl::test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace vvl::test;
    static const auto quiet = vvl::set_log_sink([](vvl::LogLevel, const std::string &) {});
    ByteReader in({data, size});
    static constexpr void (*steps[])(ByteReader &) = {deliver_keyless, deliver_keyed, read_key};
    steps[in.below(std::size(steps))](in);
    return 0;
}
