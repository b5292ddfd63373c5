// The global configuration is one object shared by several settings, so each
// setting writes its own field and does not change the others. OUIs and ports
// are objects of their own and are written whole.
#include "platform/operator/operator.h"

#include "platform/mom/databases.h"

#include "p_bridge.pb-c.h"

#include <algorithm>

namespace vvl::oper
{
namespace
{

bool succeed(int rv, const std::string &object, std::string &why)
{
    if (rv == 0) {
        return true;
    }
    const std::string reason = rv == TQ_MOM_E_UNREACHABLE ? "the store cannot be reached"
                                                          : "the store refused it (" + std::to_string(rv) + ")";
    why = object + ": " + reason;
    return false;
}

} // namespace

bool Operator::connect(std::string &why)
{
    return succeed(client_.connect_now(mom::db_config), "database " + std::to_string(mom::db_config), why);
}

int Operator::on_answer(void *, tq_mom_record_t *record, void *user)
{
    auto &self = *static_cast<Operator *>(user);
    self.answered_++;
    self.refused_ += record->error != 0;
    return 0;
}

bool Operator::sent(int rv, const std::string &object, std::string &why)
{
    sent_ += rv == 0;
    return succeed(rv, object, why);
}

bool Operator::write_field(const ProtobufCMessage &config, uint32_t field, const char *name, std::string &why)
{
    return sent(mom::set_fields(client_.ctx(), mom::db_config, &config, &field, 1, on_answer, this), name, why);
}

bool Operator::set_vlan(uint32_t vlan, bool on, std::string &why)
{
    PBridge__VvlanEn glb_switch = P_BRIDGE__VVLAN_EN__INIT;
    PBridge__VvlanGlbCfg config = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    glb_switch.vlan = vlan;
    glb_switch.enable = on ? 1 : 0;
    config.glb_switch = &glb_switch;
    return write_field(config.base, mom::glb_cfg_switch, "voice VLAN", why);
}

bool Operator::set_security(bool on, std::string &why)
{
    PBridge__VvlanGlbCfg config = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    config.secu_mode = on ? 1 : 0;
    return write_field(config.base, mom::glb_cfg_security, "security mode", why);
}

bool Operator::set_age(uint32_t minutes, std::string &why)
{
    PBridge__VvlanGlbCfg config = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    config.age_time = minutes;
    return write_field(config.base, mom::glb_cfg_age, "aging time", why);
}

bool Operator::set_qos(uint32_t cos, uint32_t dscp, std::string &why)
{
    PBridge__BQos qos = P_BRIDGE__B_QOS__INIT;
    PBridge__VvlanGlbCfg config = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    qos.cos = cos;
    qos.dscp = dscp;
    config.qos = &qos;
    return write_field(config.base, mom::glb_cfg_qos, "priority", why);
}

bool Operator::set_oui(const Mac &mac, const Mac &mask, bool present, std::string &why)
{
    Mac mac_bytes = mac;
    Mac mask_bytes = mask;
    PLibpub__Mac mac_part = P_LIBPUB__MAC__INIT;
    PLibpub__Mac mask_part = P_LIBPUB__MAC__INIT;
    PBridge__BOui index = P_BRIDGE__B_OUI__INIT;
    PBridge__VvlanOuiCfg oui = P_BRIDGE__VVLAN_OUI_CFG__INIT;
    mac_part.data = {mac_bytes.size(), mac_bytes.data()};
    mask_part.data = {mask_bytes.size(), mask_bytes.data()};
    index.mac = &mac_part;
    index.mask = &mask_part;
    oui.index = &index;
    const int rv = present ? tq_mom_set(client_.ctx(), mom::db_config, &oui.base, on_answer, this)
                           : tq_mom_del(client_.ctx(), mom::db_config, &oui.base, on_answer, this);
    return sent(rv, "OUI " + oui_text(mac, mask), why);
}

bool Operator::set_port(uint32_t ifx, bool enabled, bool automatic, std::string &why)
{
    PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
    PBridge__VvlanPortCfg port = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    index.ifx = ifx;
    port.index = &index;
    port.enable = enabled ? 1 : 0;
    port.mode = automatic ? 1 : 0;
    const int rv = tq_mom_set(client_.ctx(), mom::db_config, &port.base, on_answer, this);
    return sent(rv, "port " + std::to_string(ifx), why);
}

bool Operator::delete_port(uint32_t ifx, std::string &why)
{
    PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
    PBridge__VvlanPortCfg port = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    index.ifx = ifx;
    port.index = &index;
    const int rv = tq_mom_del(client_.ctx(), mom::db_config, &port.base, on_answer, this);
    return sent(rv, "port " + std::to_string(ifx), why);
}

bool Operator::port_is_automatic(uint32_t ifx)
{
    PBridge__VvlanIndex index = P_BRIDGE__VVLAN_INDEX__INIT;
    PBridge__VvlanPortCfg key = P_BRIDGE__VVLAN_PORT_CFG__INIT;
    index.ifx = ifx;
    key.index = &index;
    ProtobufCMessage *found = tq_mom_get_sync(client_.ctx(), mom::db_config, &key.base, nullptr);
    // The generated message begins with its ProtobufCMessage, and the store
    // answers with the type that was asked for.
    const bool automatic = found == nullptr || reinterpret_cast<PBridge__VvlanPortCfg *>(found)->mode != 0;
    tq_mom_tq_obj_free(found);
    return automatic;
}

bool Operator::read_present(PresentConfig &present, std::string &why)
{
    PBridge__VvlanGlbCfg key = P_BRIDGE__VVLAN_GLB_CFG__INIT;
    uint32_t result = 0;
    ProtobufCMessage *found = tq_mom_get_sync(client_.ctx(), mom::db_config, &key.base, &result);
    const auto *config = reinterpret_cast<const PBridge__VvlanGlbCfg *>(found); // as in port_is_automatic
    const PBridge__VvlanEn *glb_switch = config != nullptr ? config->glb_switch : nullptr;
    present.vlan = glb_switch != nullptr && glb_switch->enable != 0 ? glb_switch->vlan : 0;
    tq_mom_tq_obj_free(found);
    return succeed(static_cast<int>(result), "voice VLAN", why);
}

// ---- Commands ---------------------------------------------------------------

namespace
{

uint32_t number_of(const Arguments &args, const char *name)
{
    return static_cast<uint32_t>(args[name].number); // its type keeps it within 32 bits
}

bool run_vlan(CommandContext &context, const Arguments &args, std::string &why)
{
    return context.op->set_vlan(number_of(args, "VLAN"), args["on|off"].text == "on", why);
}

// The module ignores the end of another VLAN than its own, but the store would keep it.
bool apply_vlan(PresentConfig &present, const Arguments &args, std::string &why)
{
    const uint32_t vlan = number_of(args, "VLAN");
    const bool on = args["on|off"].text == "on";
    if (!on && present.vlan != 0 && present.vlan != vlan) {
        why = "voice VLAN " + std::to_string(vlan) + " is not on; voice VLAN " + std::to_string(present.vlan) + " is";
        return false;
    }
    present.vlan = on ? vlan : 0;
    return true;
}

// What is there already may always be removed.
bool check_oui(const Grammar &, const Arguments &args, std::string &why)
{
    const Argument &oui = args["OUI"];
    const bool is_group = (oui.mac[0] & 1) != 0;
    // The module looks learned addresses up by prefix masks only.
    const bool is_prefix =
        oui_text(oui.mac, oui.mask).find(':', oui_text(oui.mac, oui.mask).find('/')) == std::string::npos;
    if (args["add|del"].text == "add" && (is_group || !is_prefix)) {
        why = "OUI " + oui.text + (is_group ? ": a group address is no device's" : ": the mask is not a prefix");
        return false;
    }
    return true;
}

bool check_voice_port(const Grammar &grammar, const Arguments &args, std::string &why)
{
    const uint32_t ifx = number_of(args, "PORT");
    const auto &uplinks = grammar.ports.uplinks;
    if (std::find(uplinks.begin(), uplinks.end(), ifx) != uplinks.end()) {
        why = "port " + std::to_string(ifx) + " is an uplink, which cannot be a voice port";
        return false;
    }
    return true;
}

bool run_oui(CommandContext &context, const Arguments &args, std::string &why)
{
    const Argument &oui = args["OUI"];
    return context.op->set_oui(oui.mac, oui.mask, args["add|del"].text == "add", why);
}

bool run_port(CommandContext &context, const Arguments &args, std::string &why)
{
    return context.op->set_port(number_of(args, "PORT"), true, args["auto|manual"].text == "auto", why);
}

bool run_port_disable(CommandContext &context, const Arguments &args, std::string &why)
{
    const uint32_t ifx = number_of(args, "PORT");
    const Argument *mode = args.find("auto|manual");
    const bool automatic = mode != nullptr ? mode->text == "auto" : context.op->port_is_automatic(ifx);
    return context.op->set_port(ifx, false, automatic, why);
}

bool run_port_delete(CommandContext &context, const Arguments &args, std::string &why)
{
    return context.op->delete_port(number_of(args, "PORT"), why);
}

bool run_qos(CommandContext &context, const Arguments &args, std::string &why)
{
    return context.op->set_qos(number_of(args, "COS"), number_of(args, "DSCP"), why);
}

bool run_security(CommandContext &context, const Arguments &args, std::string &why)
{
    return context.op->set_security(args["on|off"].text == "on", why);
}

bool run_age(CommandContext &context, const Arguments &args, std::string &why)
{
    return context.op->set_age(number_of(args, "MINUTES"), why);
}

constexpr CommandRow rows[] = {
    {"vlan VLAN on|off", "switch the voice VLAN on or off", run_vlan, nullptr, false, apply_vlan},
    {"oui add|del OUI", "voice devices by their address range", run_oui, check_oui},
    {"port PORT auto|manual", "enable a port; auto: it joins with its first voice frame", run_port, check_voice_port},
    {"port PORT disable [auto|manual]", "disable a port; it keeps its mode unless one is given", run_port_disable},
    {"port PORT delete", "remove a port's configuration", run_port_delete},
    {"qos cos COS dscp DSCP", "priority of voice traffic", run_qos},
    {"security on|off", "on: the voice VLAN is closed to other devices", run_security},
    {"age MINUTES", "how long a port without voice device stays joined", run_age},
};

constexpr ArgumentType types[] = {
    {"VLAN", "1 to 4094", read_number, 1, 4094}, // 0 and 4095 are reserved by IEEE 802.1Q
    {"OUI", "ADDRESS/BITS or ADDRESS/MASK, as 00:04:76:00:00:00/24", read_oui},
    {"PORT", "a port's interface index", read_port, 1, INT32_MAX},
    {"COS", "0 to 7", read_number, 0, 7},
    {"DSCP", "0 to 63", read_number, 0, 63},
    {"MINUTES", "0 to 65535", read_number, 0, UINT16_MAX},
};

} // namespace

std::span<const CommandRow> operator_commands()
{
    return rows;
}

std::span<const ArgumentType> operator_types()
{
    return types;
}

Grammar operator_grammar(OperatorPorts ports)
{
    return {{std::begin(rows), std::end(rows)}, {std::begin(types), std::end(types)}, std::move(ports)};
}

} // namespace vvl::oper
