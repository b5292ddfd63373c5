// A store, a software plane and a virtual clock, with a client that writes
// what the agent would write and records what the sides tell.
#pragma once

#include "platform/base/virtual_loop.h"
#include "platform/fp/soft/plane_soft.h"
#include "platform/host/services.h"
#include "platform/mom/client.h"
#include "platform/mom/databases.h"
#include "platform/mom/keys.h"
#include "platform/mom/local/store_local.h"
#include "platform/mom/messages.h"

#include "p_bridge.pb-c.h"
#include "s_bridge.pb-c.h"
#include "u_bridge.pb-c.h"

#include <gtest/gtest.h>

namespace vvl::sides
{

constexpr Mac phone{0x00, 0x04, 0x76, 0x22, 0x20, 0x17};
constexpr Mac pc{0x00, 0x1b, 0x21, 0x00, 0x00, 0x01};

inline const host::PortId port_map[] = {{1, 0x101}, {2, 0x102}, {3, 0x103}};

class Rig : public testing::Test
{
  protected:
    Rig() : store(mom::make_local_store()), plane(loop)
    {
        host::set_port_map(port_map);
        for (const host::PortId &port : port_map) {
            std::string why;
            EXPECT_TRUE(plane.add_port({.phyid = port.phyid}, why)) << why;
        }
        fp::Rule voice;
        voice.id = 1;
        voice.mac = {0x00, 0x04, 0x76};
        voice.mask = prefix_mask(24);
        fp::PlaneState state;
        state.rules[static_cast<size_t>(fp::Acl::voice)] = {voice};
        plane.install(state);
        EXPECT_EQ(mom::attach(&probe, *store, loop, "probe"), 0);
        for (uint32_t db : mom::databases_in_use) {
            EXPECT_EQ(tq_mom_client_connect_sync(&probe, db), 0);
        }
        follow(0, "s_bridge.vvlan_port_noty");
        follow(6, "u_bridge.mac_vid_reg_noti");
        loop.run_pending();
        told.clear();
    }
    ~Rig() override { mom::detach(&probe); }

    template <typename Side> void start(Side &side)
    {
        std::string why;
        ASSERT_TRUE(side.start(why)) << why;
        loop.run_pending();
    }

    // Sets or removes the object of this key ("3").
    void put(uint32_t db, const char *type, const std::string &key, bool present = true)
    {
        auto object = mom::decode_key(*mom::find_type(type), key);
        ASSERT_NE(object, nullptr) << key;
        EXPECT_EQ(present ? tq_mom_set(&probe, db, object.get(), nullptr, nullptr)
                          : tq_mom_del(&probe, db, object.get(), nullptr, nullptr),
                  0);
        loop.run_pending();
    }
    void set_trap(uint32_t ifx, bool on = true) { put(8, "u_bridge.vvlan_port_cfg", std::to_string(ifx), on); }
    void configure_port(uint32_t ifx, uint32_t enable, uint32_t mode)
    {
        PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
        PBridge__VvlanPortCfg object = P_BRIDGE__VVLAN_PORT_CFG__INIT;
        index.ifx = ifx;
        object.index = &index;
        object.enable = enable;
        object.mode = mode;
        EXPECT_EQ(tq_mom_set(&probe, mom::db_config, &object.base, nullptr, nullptr), 0);
        loop.run_pending();
    }
    void switch_vlan(uint32_t vlan, uint32_t enable)
    {
        PBridge__VvlanEn glb_switch = P_BRIDGE__VVLAN_EN__INIT;
        PBridge__VvlanGlbCfg object = P_BRIDGE__VVLAN_GLB_CFG__INIT;
        glb_switch.vlan = vlan;
        glb_switch.enable = enable;
        object.glb_switch = &glb_switch;
        EXPECT_EQ(mom::set_fields(&probe, mom::db_config, &object.base, &mom::glb_cfg_switch, 1), 0);
        loop.run_pending();
    }
    void register_vlan(uint32_t vlan, bool on = true) { put(6, "u_bridge.mac_vid_reg", std::to_string(vlan), on); }

    bool stored(const std::string &key)
    {
        auto object = mom::decode_key(*mom::find_type("u_bridge.mac_vid_reg_noti"), key);
        ProtobufCMessage *found = tq_mom_get_sync(&probe, 6, object.get(), nullptr);
        tq_mom_tq_obj_free(found);
        return found != nullptr;
    }

    // A minimal untagged frame to everybody.
    void receive(uint32_t phyid, const Mac &source)
    {
        std::vector<uint8_t> frame(60, 0);
        std::fill_n(frame.begin(), 6, 0xff);
        std::copy(source.begin(), source.end(), frame.begin() + 6);
        frame[12] = 0x08;
        plane.receive(phyid, frame);
        loop.run_pending();
    }

    std::vector<std::string> take_told()
    {
        loop.run_pending();
        return std::exchange(told, {});
    }

    VirtualLoop loop;
    std::unique_ptr<mom::Store> store;
    fp::SoftPlane plane;
    tq_global_t probe{};
    std::vector<std::string> told; // "publish KEY", "set KEY port IFX", "del KEY"

  private:
    void follow(uint32_t db, const char *type)
    {
        auto tmpl = mom::make_message(*mom::find_type(type)->descriptor);
        EXPECT_EQ(tq_mom_subscribe(&probe, db, tmpl.get(), TQ_MOM_MATCH_ALL, record, this), 0);
    }

    static int record(void *, tq_mom_record_t *record, void *user)
    {
        if (record->object == nullptr) {
            return 0;
        }
        const auto &object = *static_cast<const ProtobufCMessage *>(record->object);
        std::string line = record->operate == TQ_MOM_PUBLISH ? "publish "
                           : record->operate == TQ_MOM_SET   ? "set "
                                                             : "del ";
        std::string key;
        mom::encode_key(*mom::find_type(object.descriptor->name), object, key);
        line += key;
        if (record->operate == TQ_MOM_SET) {
            line += " port " + std::to_string(static_cast<const UBridge__MacVidRegNoti *>(record->object)->port_id);
        }
        static_cast<Rig *>(user)->told.push_back(line);
        return 0;
    }
};

using Lines = std::vector<std::string>;

} // namespace vvl::sides
