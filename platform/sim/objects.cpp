// The types that an expectation may name, with their databases.
#include "platform/sim/objects.h"

#include "platform/mom/databases.h"
#include "platform/mom/keys.h"
#include "platform/operator/command.h"

namespace vvl::sim
{

const char *const named_type_words =
    "p_bridge.vvlan_port_cfg|p_bridge.vvlan_oui_cfg|p_bridge.vvlan_port_auto|s_cluster.reg_pkt_info|"
    "u_bridge.vvlan_join|u_bridge.vvlan_port_cfg|u_bridge.vvlan_oui_cfg|u_bridge.mac_vid_reg|"
    "u_bridge.mac_vid_reg_noti";

namespace
{

constexpr NamedType named_types[] = {
    {"p_bridge.vvlan_port_cfg", mom::db_config},    {"p_bridge.vvlan_oui_cfg", mom::db_config, true},
    {"p_bridge.vvlan_port_auto", mom::db_config},   {"s_cluster.reg_pkt_info", mom::db_status},
    {"u_bridge.vvlan_join", mom::db_plane},         {"u_bridge.vvlan_port_cfg", mom::db_plane},
    {"u_bridge.vvlan_oui_cfg", mom::db_plane},      {"u_bridge.mac_vid_reg", mom::db_address},
    {"u_bridge.mac_vid_reg_noti", mom::db_address},
};

} // namespace

const NamedType *find_named_type(std::string_view name)
{
    for (const NamedType &type : named_types) {
        if (name == type.name) {
            return &type;
        }
    }
    return nullptr;
}

mom::MessagePtr make_keyed(const NamedType &type, const std::string &key)
{
    const mom::ObjectType &object = *mom::find_type(type.name);
    Mac mac{};
    Mac mask{};
    std::string why;
    if (!type.key_is_oui) {
        return mom::decode_key(object, key);
    }
    return oper::parse_oui(key, mac, mask, why) ? mom::decode_key(object, to_text(mac) + "/" + to_text(mask)) : nullptr;
}

} // namespace vvl::sim
