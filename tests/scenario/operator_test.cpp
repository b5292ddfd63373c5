#include "platform/operator/operator.h"

#include "platform/base/virtual_loop.h"
#include "platform/mom/keys.h"
#include "platform/mom/local/store_local.h"

#include "p_bridge.pb-c.h"

#include <gtest/gtest.h>

namespace vvl::oper
{
namespace
{

class OperatorTest : public testing::Test
{
  protected:
    OperatorTest() : store(mom::make_local_store()), op(*store, loop)
    {
        std::string why;
        EXPECT_TRUE(op.connect(why)) << why;
        mom::attach(&reader, *store, loop, "reader");
        tq_mom_client_connect_sync(&reader, 4);
    }
    ~OperatorTest() override { mom::detach(&reader); }

    // Runs operator lines as a tool would, without a simulation.
    void run(const char *line)
    {
        Command command;
        std::string why;
        ASSERT_TRUE(parse_command(grammar, line, command, why)) << why;
        CommandContext context{&op, nullptr, nullptr};
        EXPECT_TRUE(command.row->run(context, command.args, why)) << why;
        loop.run_pending();
    }

    // The stored object of this key; null where there is none.
    template <typename Object> std::shared_ptr<Object> stored(const char *type, const std::string &key)
    {
        const mom::ObjectType &object = *mom::find_type(type);
        auto wanted = key.empty() ? mom::make_message(*object.descriptor) : mom::decode_key(object, key);
        void *found = tq_mom_get_sync(&reader, 4, wanted.get(), nullptr);
        return {static_cast<Object *>(found),
                [](void *read) { tq_mom_tq_obj_free(static_cast<ProtobufCMessage *>(read)); }};
    }

    // "enable,mode" of a port, or "none".
    std::string port(uint32_t ifx)
    {
        const auto config = stored<PBridge__VvlanPortCfg>("p_bridge.vvlan_port_cfg", std::to_string(ifx));
        return config ? std::to_string(config->enable) + "," + std::to_string(config->mode) : "none";
    }

    VirtualLoop loop;
    std::unique_ptr<mom::Store> store;
    Operator op;
    tq_global_t reader{};
    const Grammar grammar = operator_grammar();
};

TEST_F(OperatorTest, EachGlobalSettingLeavesTheOthersAlone)
{
    for (const char *line : {"vlan 100 on", "qos cos 5 dscp 40", "security on", "age 90", "qos cos 4 dscp 32"}) {
        run(line);
    }
    const auto config = stored<PBridge__VvlanGlbCfg>("p_bridge.vvlan_glb_cfg", "");
    ASSERT_NE(config, nullptr);
    ASSERT_TRUE(config->glb_switch != nullptr && config->qos != nullptr);
    EXPECT_EQ((std::vector{config->glb_switch->vlan, config->glb_switch->enable, config->secu_mode, config->age_time,
                           config->qos->cos, config->qos->dscp}),
              (std::vector<uint32_t>{100, 1, 1, 90, 4, 32}));
}

TEST_F(OperatorTest, DisabledPortKeepsItsModeUnlessOneIsGiven)
{
    const struct {
        const char *line;
        uint32_t ifx;
        const char *stored;
    } rows[] = {{"port 1 manual", 1, "1,0"},
                {"port 1 disable", 1, "0,0"},
                {"port 1 disable auto", 1, "0,1"},
                {"port 2 disable", 2, "0,1"}, // automatic is the default
                {"port 1 delete", 1, "none"}};
    for (const auto &row : rows) {
        run(row.line);
        EXPECT_EQ(port(row.ifx), row.stored) << row.line;
    }
}

TEST_F(OperatorTest, OuiIsOneObjectHoweverItsMaskIsWritten)
{
    const char *key = "00:04:76:00:00:00/ff:ff:ff:00:00:00";
    run("oui add 00:04:76:00:00:00/24");
    EXPECT_NE(stored<PBridge__VvlanOuiCfg>("p_bridge.vvlan_oui_cfg", key), nullptr);
    run("oui del 00:04:76:00:00:00/ff:ff:ff:00:00:00");
    EXPECT_EQ(stored<PBridge__VvlanOuiCfg>("p_bridge.vvlan_oui_cfg", key), nullptr);
}

} // namespace
} // namespace vvl::oper
