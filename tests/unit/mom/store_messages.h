// Messages for the store's tests, each with its parts in one place and used
// where a const ProtobufCMessage * is wanted. A MAC is six bytes, or absent
// where it is empty.
#pragma once

#include "p_bridge.pb-c.h"
#include "s_cluster.pb-c.h"
#include "u_bridge.pb-c.h"

#include <string>

namespace vvl::mom
{

template <typename Message> struct Part {
    Part(const Part &) = delete;
    Part &operator=(const Part &) = delete;
    operator const ProtobufCMessage *() const { return &object.base; }

    Message object;

  protected:
    explicit Part(const Message &init) : object(init) {}
};

struct PortCfg : Part<PBridge__VvlanPortCfg> {
    explicit PortCfg(uint32_t ifx, uint32_t mode = 0) : Part(P_BRIDGE__VVLAN_PORT_CFG__INIT)
    {
        index.ifx = ifx;
        object.index = &index;
        object.mode = mode;
    }
    PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
};

struct GlbCfg : Part<PBridge__VvlanGlbCfg> {
    explicit GlbCfg(uint32_t secu_mode = 0, uint32_t age_time = 0) : Part(P_BRIDGE__VVLAN_GLB_CFG__INIT)
    {
        object.secu_mode = secu_mode;
        object.age_time = age_time;
    }
};

struct MacData {
    explicit MacData(const std::string &data) : bytes(data)
    {
        mac.data.len = bytes.size();
        mac.data.data = reinterpret_cast<uint8_t *>(bytes.data());
    }
    std::string bytes;
    PLibpub__Mac mac = P_LIBPUB__MAC__INIT;
};

struct Learned : Part<UBridge__MacVidRegNoti> {
    Learned(uint32_t vid, uint32_t type, const std::string &address)
        : Part(U_BRIDGE__MAC_VID_REG_NOTI__INIT), data(address)
    {
        index.t_fid = vid;
        index.t_type = type;
        index.t_mac = address.empty() ? nullptr : &data.mac;
        object.index = &index;
    }
    MacData data;
    UBridge__UdpL2addrBaseIndex index = U_BRIDGE__UDP_L2ADDR_BASE_INDEX__INIT;
};

struct OuiCfg : Part<PBridge__VvlanOuiCfg> {
    OuiCfg(const std::string &address, const std::string &prefix)
        : Part(P_BRIDGE__VVLAN_OUI_CFG__INIT), mac(address), mask(prefix)
    {
        index.mac = &mac.mac;
        index.mask = prefix.empty() ? nullptr : &mask.mac;
        object.index = &index;
    }
    MacData mac;
    MacData mask;
    PBridge__BOui index = P_BRIDGE__B_OUI__INIT;
};

struct PacketLibrary : Part<SCluster__RegPktInfo> {
    PacketLibrary(const std::string &app, const std::string &file)
        : Part(S_CLUSTER__REG_PKT_INFO__INIT), name(app), dlib(file)
    {
        index.name = name.data();
        object.index = &index;
        object.dlib_name = dlib.data();
    }
    std::string name;
    std::string dlib;
    SCluster__AppName index = S_CLUSTER__APP_NAME__INIT;
};

} // namespace vvl::mom
