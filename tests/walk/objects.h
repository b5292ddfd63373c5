// The objects that the walk writes into the store, as plain values. MAC
// addresses are text as in a key: "-" is an absent one, two quotation marks an
// empty one, and any number of bytes may be between.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace vvl::walk
{

// Databases, in the order in which the module connects to them.
constexpr uint32_t db_config = 4;
constexpr uint32_t db_status = 0;
constexpr uint32_t db_address = 6;
constexpr uint32_t db_own = 8;
constexpr uint32_t databases[] = {db_config, db_status, db_address, db_own};
constexpr uint32_t db_count = 9; // one more than the largest

enum class Op { set, remove, publish };

using OuiObject = std::string; // the key of a p_bridge.vvlan_oui_cfg, "mac/mask"

struct PortObject { // p_bridge.vvlan_port_cfg
    uint32_t ifx = 0;
    uint32_t enable = 0;
    uint32_t mode = 0;
};

struct NotiObject { // u_bridge.mac_vid_reg_noti
    uint32_t vlan = 0;
    uint32_t type = 0;
    std::string mac;
    uint32_t port = 0; // ifx
};

// Field numbers of p_bridge.vvlan_glb_cfg.
constexpr uint32_t field_switch = 5;
constexpr uint32_t field_security = 6;
constexpr uint32_t field_age = 7;
constexpr uint32_t field_qos = 8;

struct GlobalValue {
    bool lacks_part = false; // of a switch or a QoS: the message is absent
    uint32_t first = 0;      // VLAN, security mode, minutes, CoS
    uint32_t second = 0;     // whether the switch is on, DSCP
};

using GlobalObject = std::map<uint32_t, GlobalValue>; // the fields that are written

// The module's own keyed objects, but for the registrations.
enum class Own { port_auto, join, trap, oui };
constexpr size_t own_count = 4;
constexpr const char *own_words[own_count] = {"port_auto", "join", "trap", "oui_record"};

inline std::string key_of(const OuiObject &oui)
{
    return oui;
}

inline std::string key_of(const PortObject &port)
{
    return std::to_string(port.ifx);
}

inline std::string key_of(const NotiObject &noti)
{
    return std::to_string(noti.vlan) + "/" + std::to_string(noti.type) + "/" + noti.mac;
}

} // namespace vvl::walk
