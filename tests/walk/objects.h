// The objects that the walk writes into the store, as plain values, and the
// text of their keys, by which the store orders them.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
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

// A p_libpub.mac: absent, or any number of bytes.
using MacField = std::optional<std::string>;

struct OuiObject { // p_bridge.vvlan_oui_cfg
    MacField mac;
    MacField mask;
};

struct PortObject { // p_bridge.vvlan_port_cfg
    uint32_t ifx = 0;
    uint32_t enable = 0;
    uint32_t mode = 0;
};

struct NotiObject { // u_bridge.mac_vid_reg_noti
    uint32_t vlan = 0;
    uint32_t type = 0;
    MacField mac;
    uint32_t port = 0; // ifx
};

// Field numbers of p_bridge.vvlan_glb_cfg.
constexpr uint32_t field_switch = 5;
constexpr uint32_t field_security = 6;
constexpr uint32_t field_age = 7;
constexpr uint32_t field_qos = 8;

struct GlobalObject { // p_bridge.vvlan_glb_cfg
    struct Switch {
        uint32_t vlan = 0;
        uint32_t enable = 0;
    };
    struct Qos {
        uint32_t cos = 0;
        uint32_t dscp = 0;
    };
    std::set<uint32_t> fields; // numbers that are written, or stored
    std::optional<Switch> glb_switch;
    uint32_t secu_mode = 0;
    uint32_t age_time = 0; // minutes
    std::optional<Qos> qos;
};

// "00:04:76", "-" for an absent one, two quotation marks for an empty one.
inline std::string mac_key(const MacField &mac)
{
    if (!mac) {
        return "-";
    }
    std::string key;
    for (const char c : *mac) {
        const auto byte = static_cast<uint8_t>(c);
        key += key.empty() ? "" : ":";
        key += "0123456789abcdef"[byte >> 4];
        key += "0123456789abcdef"[byte & 15];
    }
    return key.empty() ? "\"\"" : key;
}

inline std::string key_of(const OuiObject &oui)
{
    return mac_key(oui.mac) + "/" + mac_key(oui.mask);
}

inline std::string key_of(const NotiObject &noti)
{
    return std::to_string(noti.vlan) + "/" + std::to_string(noti.type) + "/" + mac_key(noti.mac);
}

} // namespace vvl::walk
