// Key texts, as a store that others write to may hold them: a text that is
// read as a key is the text that this key is written as, and any object's key
// is read back as the same key.
#include "platform/mom/keys.h"
#include "tests/fuzz/byte_reader.h"

namespace vvl::test
{
namespace
{

constexpr const char *types[] = {"p_bridge.vvlan_oui_cfg", "p_bridge.vvlan_port_cfg",   "s_cluster.reg_pkt_info",
                                 "u_bridge.vvlan_oui_cfg", "u_bridge.mac_vid_reg_noti", "p_bridge.vvlan_glb_cfg"};

void read_text(const mom::ObjectType &type, const std::string &text)
{
    const mom::MessagePtr object = mom::decode_key(type, text);
    if (object) {
        std::string again;
        require(mom::encode_key(type, *object, again) && again == text, "a text and its key are one to one");
    }
}

void read_object(const mom::ObjectType &type, const std::string &bytes)
{
    const mom::MessagePtr object = mom::unpack(type, bytes);
    std::string key;
    if (!object || !mom::encode_key(type, *object, key)) {
        return;
    }
    require(key.size() <= mom::key_size_max, "a key is not longer than the limit");
    const mom::MessagePtr again = mom::decode_key(type, key);
    std::string key_again;
    require(again && mom::encode_key(type, *again, key_again) && key_again == key, "a key is read back");
    const mom::Match match(type, *object, TQ_MOM_MATCH_FIELDS);
    require(match.matches(*object), "an object matches itself");
}

} // namespace
} // namespace vvl::test

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace vvl::test;
    ByteReader in({data, size});
    const vvl::mom::ObjectType *type = vvl::mom::find_type(types[in.u8() % std::size(types)]);
    require(type != nullptr, "the type is known");
    if (in.flag()) {
        read_text(*type, in.text());
    } else {
        read_object(*type, in.text());
    }
    return 0;
}
