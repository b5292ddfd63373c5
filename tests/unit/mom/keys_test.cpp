#include "platform/mom/keys.h"

#include <gtest/gtest.h>

namespace vvl::mom
{
namespace
{

using namespace std::string_literals;

TEST(Keys, TextNamesEveryShapeOfKeyApart)
{
    const std::string mac("\x0a\x06\x00\x04\x76\x0a\xff\x17", 8);
    const struct {
        const char *type;
        std::string packed; // the key
        const char *text;
    } rows[] = {
        {"p_bridge.vvlan_port_cfg", "", "0"},
        {"p_bridge.vvlan_port_cfg", "\x08\xff\xff\xff\xff\x0f", "4294967295"},
        {"p_bridge.vvlan_oui_cfg", "\x0a\x08" + mac + "\x12\x08" + mac, "00:04:76:0a:ff:17/00:04:76:0a:ff:17"},
        {"p_bridge.vvlan_oui_cfg", "\x0a\x08" + mac, "00:04:76:0a:ff:17/-"},
        {"p_bridge.vvlan_oui_cfg", "\x0a\x00\x12\x03\x0a\x01\x00"s, "\"\"/00"},
        {"u_bridge.mac_vid_reg_noti", "\x08\x0a\x10\x02\x1a\x08" + mac, "10/2/00:04:76:0a:ff:17"},
        {"s_cluster.reg_pkt_info", "\x0a\x09pkt_vvlan", "pkt_vvlan"},
        {"s_cluster.reg_pkt_info", "", "\"\""},
        {"s_cluster.reg_pkt_info", "\x0a\x01-", "-"},
        {"s_cluster.reg_pkt_info",
         "\x0a\x08"
         "a/b%\"\xc3\xa4 ",
         "a%2fb%25%22%c3%a4%20"},
    };
    for (const auto &row : rows) {
        const ObjectType &type = *find_type(row.type);
        const MessagePtr object = unpack(type, "\x2a"s + static_cast<char>(row.packed.size()) + row.packed);
        ASSERT_NE(object, nullptr) << row.text;
        std::string key;
        EXPECT_TRUE(encode_key(type, *object, key));
        EXPECT_EQ(key, row.text);
        // Every text leads back to a message with the same key.
        const MessagePtr again = decode_key(type, key);
        EXPECT_TRUE(again && encode_key(type, *again, key));
        EXPECT_EQ(key, row.text);
    }
}

TEST(Keys, TextOfAnotherWritingIsRefused)
{
    const std::pair<const char *, std::vector<const char *>> rows[] = {
        {"p_bridge.vvlan_port_cfg", {"", "05", "5 ", "4294967296"}},
        {"p_bridge.vvlan_oui_cfg",
         {"00:04:76:0a:ff:17", "00:04:76:0A:ff:17/-", "00:04:76:0a:ff:/-", "00-04-76-0a-ff-17/-", "-/-/-"}},
        {"s_cluster.reg_pkt_info", {"%2", "%61", "a%00b"}},
        {"p_bridge.vvlan_glb_cfg", {"5"}},
    };
    for (const auto &[type, texts] : rows) {
        for (const char *text : texts) {
            EXPECT_EQ(decode_key(*find_type(type), text), nullptr) << type << " " << text;
        }
    }
    EXPECT_EQ(decode_key(*find_type("s_cluster.reg_pkt_info"), std::string(key_size_max + 1, 'a')), nullptr);
}

TEST(Fields, MalformedBytesAreRefused)
{
    for (const std::string &bytes : {"\x42\x05\x01"s, "\x02\x00"s}) { // a length past the end, field 0
        FieldMap fields;
        EXPECT_FALSE(split_fields(bytes, fields)) << testing::PrintToString(bytes);
    }
    std::string joined;
    EXPECT_FALSE(join_fields({{7, "\x30\x01"}}, joined));         // another field's number
    EXPECT_FALSE(join_fields({{6, "\x30\x01\x38\x01"}}, joined)); // two fields in one entry
}

} // namespace
} // namespace vvl::mom
