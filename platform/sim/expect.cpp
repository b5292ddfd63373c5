// The expectations: each compares one observable fact (the store, the
// manager's desired state, the plane's counters) with what the scenario says.
#include "platform/sim/objects.h"
#include "platform/sim/runner.h"

#include "p_bridge.pb-c.h"

namespace vvl::sim
{

using namespace oper;

namespace
{

bool compare(const std::string &subject, const std::string &expected, const std::string &found, std::string &why)
{
    if (expected != found) {
        why = "expected " + subject + " " + expected + ", found " + found;
    }
    return expected == found;
}

bool expect_port(CommandContext &context, const Arguments &args, std::string &why)
{
    const std::string &ifx = args["PORT"].text;
    Observer &observer = context.sim->observer();
    std::string found = "out";
    if (observer.has_object(*find_named_type("p_bridge.vvlan_port_auto"), ifx)) {
        found = "joined";
    } else if (observer.has_object(*find_named_type("u_bridge.vvlan_port_cfg"), ifx)) {
        found = "waiting";
    }
    return compare("port " + ifx, args["joined|waiting|out"].text, found, why);
}

struct AclName {
    const char *name;
    fp::Acl acl;
};
constexpr AclName acl_names[] = {
    {"voice", fp::Acl::voice}, {"mac_vlan", fp::Acl::mac_vlan}, {"security", fp::Acl::security}};

std::string acls_text(uint8_t acls)
{
    std::string text;
    for (const AclName &row : acl_names) {
        if ((acls & fp::acl_bit(row.acl)) != 0) {
            text += (text.empty() ? "" : " ") + std::string(row.name);
        }
    }
    return text.empty() ? "none" : text;
}

bool expect_bound(CommandContext &context, const Arguments &args, std::string &why)
{
    host::Switch &network_switch = context.sim->network_switch();
    const Argument &port = args["PORT"];
    uint8_t wanted = 0;
    for (const Argument &argument : args.list()) {
        for (const AclName &row : acl_names) {
            if (argument.name == "ACL" && argument.text == row.name) {
                wanted |= fp::acl_bit(row.acl);
            }
        }
    }
    const auto &bindings = network_switch.manager().desired().binding;
    const auto found = bindings.find(network_switch.find_port(static_cast<uint32_t>(port.number))->phyid);
    const uint8_t bound = found != bindings.end() ? found->second : 0;
    return compare("bound " + port.text, acls_text(wanted), acls_text(bound), why);
}

bool expect_count(CommandContext &context, const Arguments &args, const char *subject, const char *type,
                  std::string &why)
{
    const size_t found = context.sim->observer().count_objects(*find_named_type(type));
    return compare(subject, std::to_string(args["COUNT"].number), std::to_string(found), why);
}

bool expect_ouis(CommandContext &context, const Arguments &args, std::string &why)
{
    return expect_count(context, args, "ouis", "u_bridge.vvlan_oui_cfg", why);
}

bool expect_macs(CommandContext &context, const Arguments &args, std::string &why)
{
    return expect_count(context, args, "macs", "u_bridge.mac_vid_reg_noti", why);
}

struct EventName {
    int type; // -1: none
    const char *name;
};
constexpr EventName event_names[] = {
    {-1, "none"},
    {P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_ENABLE, "vlan"},
    {P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_PORT_ENABLE, "port"},
    {P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_OUI_CONFIG, "oui"},
    {P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_QOS_CONFIG, "qos"},
    {P_BRIDGE__VVLAN_ERR_TYPE__VVLAN_SET_SECURITY_MOD, "security"},
};

bool expect_error_event(CommandContext &context, const Arguments &args, std::string &why)
{
    const int type = context.sim->observer().last_error_event();
    std::string found = std::to_string(type);
    for (const EventName &row : event_names) {
        if (row.type == type) {
            found = row.name;
        }
    }
    return compare("error-event", args["EVENT"].text, found, why);
}

struct CounterName {
    const char *name;
    uint64_t fp::PortCounters::*member;
};
constexpr CounterName counter_names[] = {
    {"in", &fp::PortCounters::in},
    {"out", &fp::PortCounters::out},
    {"trapped", &fp::PortCounters::trapped},
    {"tagged", &fp::PortCounters::tagged},
    {"remarked", &fp::PortCounters::remarked},
    {"dropped", &fp::PortCounters::dropped},
};

bool expect_frames(CommandContext &context, const Arguments &args, std::string &why)
{
    const fp::PortCounters total = context.sim->plane().total();
    const std::string &name = args["COUNTER"].text;
    const std::string &relation = args["=|>=|<="].text;
    const uint64_t wanted = args["COUNT"].number;
    uint64_t found = 0;
    for (const CounterName &row : counter_names) {
        if (name == row.name) {
            found = total.*row.member;
        }
    }
    if (relation == "=" ? found == wanted : relation == ">=" ? found >= wanted : found <= wanted) {
        return true;
    }
    why =
        "expected frames " + name + " " + relation + " " + std::to_string(wanted) + ", found " + std::to_string(found);
    return false;
}

bool check_key(const Grammar &, const Arguments &args, std::string &why)
{
    const std::string &type = args["TYPE"].text;
    const std::string &key = args["KEY"].text;
    if (make_keyed(*find_named_type(type), key) == nullptr) {
        why = "'" + key + "' is not a key of " + type;
        return false;
    }
    return true;
}

bool expect_presence(CommandContext &context, const Arguments &args, bool wanted, std::string &why)
{
    const std::string &type = args["TYPE"].text;
    const std::string &key = args["KEY"].text;
    const bool found = context.sim->observer().has_object(*find_named_type(type), key);
    if (found != wanted) {
        why = std::string("expected ") + (wanted ? "" : "no ") + "object " + type + " " + key + ", found " +
              (found ? "one" : "none");
    }
    return found == wanted;
}

bool expect_object(CommandContext &context, const Arguments &args, std::string &why)
{
    return expect_presence(context, args, true, why);
}

bool expect_no_object(CommandContext &context, const Arguments &args, std::string &why)
{
    return expect_presence(context, args, false, why);
}

constexpr CommandRow rows[] = {
    {"expect port PORT joined|waiting|out", "an automatic port's state; out: neither", expect_port},
    {"expect bound PORT ACL [ACL] [ACL]", "the ACLs that the port is bound to, all of them", expect_bound},
    {"expect ouis COUNT", "installed OUIs", expect_ouis},
    {"expect macs COUNT", "addresses that the bridge reports from the voice VLAN", expect_macs},
    {"expect error-event EVENT", "the last report of configuration that failed", expect_error_event},
    {"expect frames COUNTER =|>=|<= COUNT", "the plane's counters, over all ports", expect_frames},
    {"expect object TYPE KEY", "an object is in the store", expect_object, check_key},
    {"expect no object TYPE KEY", "an object is not in the store", expect_no_object, check_key},
};

constexpr const char *acl_words = "voice|mac_vlan|security|none";
constexpr const char *counter_words = "in|out|trapped|tagged|remarked|dropped";
constexpr const char *event_words = "none|vlan|port|oui|qos|security";

} // namespace

std::span<const CommandRow> expect_commands()
{
    return rows;
}

std::span<const ArgumentType> expect_types()
{
    static const ArgumentType types[] = {
        {"ACL", acl_words, read_word, 0, 0, acl_words},
        {"COUNT", "a number", read_number, 0, INT64_MAX},
        {"COUNTER", counter_words, read_word, 0, 0, counter_words},
        {"EVENT", event_words, read_word, 0, 0, event_words},
        {"TYPE", "a stored message's full name, as u_bridge.vvlan_join", read_word, 0, 0, named_type_words},
        {"KEY", "as the store writes it: 3, or 100/0/00:04:76:22:20:17", read_text},
    };
    return types;
}

} // namespace vvl::sim
