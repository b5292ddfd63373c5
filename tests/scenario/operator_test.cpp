#include "platform/operator/operator.h"

#include "platform/base/virtual_loop.h"
#include "platform/mom/keys.h"
#include "platform/mom/local/store_local.h"
#include "platform/operator/script.h"
#include "tests/support/message_text.h"

#include <gtest/gtest.h>

namespace vvl::oper
{
namespace
{

// Runs operator lines as a tool would, without a simulation; each row has what
// is stored afterwards.
TEST(OperatorTest, EachLineWritesItsObjectAndLeavesTheRestAlone)
{
    const char *global = "p_bridge.vvlan_glb_cfg";
    const char *port = "p_bridge.vvlan_port_cfg";
    const char *oui = "p_bridge.vvlan_oui_cfg";
    const char *oui_key = "00:04:76:00:00:00/ff:ff:ff:00:00:00";
    const struct {
        const char *line;
        const char *type;
        const char *key;
        const char *fields; // null: there is no object
    } rows[] = {
        {"vlan 100 on", global, "", "{glb_switch{vlan:100 enable:1}}"},
        {"qos cos 5 dscp 40", global, "", "{glb_switch{vlan:100 enable:1} qos{cos:5 dscp:40}}"},
        {"security on", global, "", "{glb_switch{vlan:100 enable:1} secu_mode:1 qos{cos:5 dscp:40}}"},
        {"age 90", global, "", "{glb_switch{vlan:100 enable:1} secu_mode:1 age_time:90 qos{cos:5 dscp:40}}"},
        // A disabled port keeps its mode unless one is given; automatic is the default.
        {"port 1 manual", port, "1", "{index{ifx:1} enable:1}"},
        {"port 1 disable", port, "1", "{index{ifx:1}}"},
        {"port 1 disable auto", port, "1", "{index{ifx:1} mode:1}"},
        {"port 2 disable", port, "2", "{index{ifx:2} mode:1}"},
        {"port 1 delete", port, "1", nullptr},
        // An OUI is one object however its mask is written.
        {"oui add 00:04:76:00:00:00/24", oui, oui_key, "{index{mac{data:000476000000} mask{data:ffffff000000}}}"},
        {"oui del 00:04:76:00:00:00/ff:ff:ff:00:00:00", oui, oui_key, nullptr},
    };
    VirtualLoop loop;
    const auto store = mom::make_local_store();
    Operator op(*store, loop);
    std::string why;
    ASSERT_TRUE(op.connect(why)) << why;
    mom::OwnedClient reader(*store, loop, "reader");
    ASSERT_EQ(reader.connect_now(4), 0);
    const Grammar grammar = operator_grammar();
    for (const auto &row : rows) {
        Command command;
        ASSERT_TRUE(parse_command(grammar, row.line, command, why)) << why;
        CommandContext context{&op, nullptr, nullptr};
        EXPECT_TRUE(command.row->run(context, command.args, why)) << row.line << ": " << why;
        loop.run_pending();
        const mom::ObjectType &type = *mom::find_type(row.type);
        const auto wanted = type.key == nullptr ? mom::make_message(*type.descriptor) : mom::decode_key(type, row.key);
        ProtobufCMessage *found = tq_mom_get_sync(reader.ctx(), 4, wanted.get(), nullptr);
        EXPECT_EQ(found == nullptr, row.fields == nullptr) << row.line;
        if (found != nullptr && row.fields != nullptr) {
            EXPECT_EQ(test::to_text(found), std::string(row.type) + row.fields) << row.line;
        }
        tq_mom_tq_obj_free(found);
    }
}

TEST(OperatorTest, EndOfAnotherVoiceVlanThanThePresentOneIsRefused)
{
    const struct {
        const char *stored;
        const char *line;
        const char *why; // null: accepted
    } rows[] = {{"vlan 100 on", "vlan 200 off", "there: voice VLAN 200 is not on; voice VLAN 100 is"},
                {"vlan 100 on", "vlan 100 off", nullptr},
                {"vlan 100 on", "vlan 200 on", nullptr},
                {"vlan 100 off", "vlan 200 off", nullptr}}; // ends nothing that is on
    VirtualLoop loop;
    const auto store = mom::make_local_store();
    Operator op(*store, loop);
    std::string why;
    ASSERT_TRUE(op.connect(why)) << why;
    for (const auto &row : rows) {
        why.clear();
        Script present;
        Script script;
        ASSERT_TRUE(present.add("here", row.stored, why) && present.run(op, why)) << why;
        ASSERT_TRUE(script.add("there", row.line, why)) << why;
        EXPECT_EQ(script.check(op, why), row.why == nullptr) << row.line;
        EXPECT_EQ(why, row.why == nullptr ? "" : row.why);
        loop.run_pending();
    }
}

} // namespace
} // namespace vvl::oper
