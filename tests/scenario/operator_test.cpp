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
    ASSERT_NE(config->glb_switch, nullptr);
    ASSERT_NE(config->qos, nullptr);
    EXPECT_EQ(config->glb_switch->vlan, 100u);
    EXPECT_EQ(config->glb_switch->enable, 1u);
    EXPECT_EQ(config->secu_mode, 1u);
    EXPECT_EQ(config->age_time, 90u);
    EXPECT_EQ(config->qos->cos, 4u);
    EXPECT_EQ(config->qos->dscp, 32u);
}

TEST_F(OperatorTest, DisabledPortKeepsItsModeUnlessOneIsGiven)
{
    run("port 1 manual");
    EXPECT_EQ(port(1), "1,0");
    run("port 1 disable");
    EXPECT_EQ(port(1), "0,0");
    run("port 1 disable auto");
    EXPECT_EQ(port(1), "0,1");
    run("port 2 disable");
    EXPECT_EQ(port(2), "0,1") << "automatic is the default";
    run("port 1 delete");
    EXPECT_EQ(port(1), "none");
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
