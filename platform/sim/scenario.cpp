// Declarations act while the file is read, since a later line is checked against
// the ports that exist.
#include "platform/sim/scenario.h"

#include "platform/operator/script.h"

namespace vvl::sim
{

using namespace oper;

namespace
{

constexpr uint32_t default_access_count = 8;
constexpr uint32_t default_uplink = 24;
constexpr uint32_t default_phyid_base = 0x100;

// The line without comment and extra spaces, for the timeline.
std::string tidy(const std::string &line)
{
    std::vector<std::string> words;
    std::string why;
    split_words(line, words, why);
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

// Refuses a change that makes two ports share a physical port, or exceeds the limit.
bool accept(CommandContext &context, const Scenario &changed, std::string &why)
{
    const auto ports = changed.ports();
    if (ports.size() > scenario_port_count_max) {
        why = "more than " + std::to_string(scenario_port_count_max) + " ports";
        return false;
    }
    std::map<uint32_t, uint32_t> owner;
    for (const host::SwitchPort &port : ports) {
        auto [entry, added] = owner.emplace(port.phyid, port.ifx);
        if (!added) {
            why = "ports " + std::to_string(entry->second) + " and " + std::to_string(port.ifx) +
                  " have the same physical port";
            return false;
        }
    }
    *context.scenario = changed;
    return true;
}

bool declare_ports(CommandContext &context, const Arguments &args, std::string &why)
{
    const Argument &range = args["RANGE"];
    if (range.last - range.number >= scenario_port_count_max) {
        why = "more than " + std::to_string(scenario_port_count_max) + " ports";
        return false;
    }
    Scenario changed = *context.scenario;
    for (uint64_t ifx = range.number; ifx <= range.last; ifx++) {
        changed.access.insert(static_cast<uint32_t>(ifx));
    }
    return accept(context, changed, why);
}

bool declare_port_map(CommandContext &context, const Arguments &args, std::string &why)
{
    const auto ifx = static_cast<uint32_t>(args["IFX"].number);
    Scenario changed = *context.scenario;
    if (!changed.phyids.emplace(ifx, static_cast<uint32_t>(args["PHYID"].number)).second) {
        why = "port " + std::to_string(ifx) + " is mapped twice";
        return false;
    }
    changed.access.insert(ifx);
    return accept(context, changed, why);
}

bool declare_uplink(CommandContext &context, const Arguments &args, std::string &why)
{
    Scenario changed = *context.scenario;
    changed.uplinks.insert(static_cast<uint32_t>(args["IFX"].number));
    return accept(context, changed, why);
}

constexpr CommandRow rows[] = {
    {"ports RANGE", "declare ports, before all other commands (default: 1..8)", declare_ports, nullptr, true},
    {"port-map IFX PHYID", "declare a port with its physical port id", declare_port_map, nullptr, true},
    {"uplink IFX", "declare a port towards the network (default: 24)", declare_uplink, nullptr, true},
};

constexpr ArgumentType types[] = {
    {"RANGE", "FIRST..LAST, as 1..8", read_range, 1, INT32_MAX},
    {"IFX", "an interface index, 1 to 2147483647", read_number, 1, INT32_MAX},
    {"PHYID", "a physical port id, decimal or 0x...", read_number, 0, UINT32_MAX},
};

bool add_line(const std::string &line, size_t number, Grammar &grammar, Scenario &scenario, std::string &why)
{
    Command command;
    if (!parse_command(grammar, line, command, why)) {
        return false;
    }
    if (command.row == nullptr) {
        return true;
    }
    if (!command.row->declaration) {
        scenario.steps.push_back({number, tidy(line), std::move(command)});
        return true;
    }
    if (!scenario.steps.empty()) {
        why = "a declaration must come before the first command";
        return false;
    }
    CommandContext context{nullptr, nullptr, &scenario};
    if (!command.row->run(context, command.args, why)) {
        return false;
    }
    grammar.ports = host::operator_ports(scenario.ports());
    return true;
}

} // namespace

std::vector<host::SwitchPort> Scenario::ports() const
{
    std::map<uint32_t, host::SwitchPort> all;
    auto add = [&](uint32_t ifx, bool uplink) {
        const auto mapped = phyids.find(ifx);
        const uint32_t phyid = mapped != phyids.end() ? mapped->second : default_phyid_base + ifx;
        all[ifx] = host::SwitchPort{ifx, phyid, 1, uplink};
    };
    if (access.empty()) {
        for (uint32_t ifx = 1; ifx <= default_access_count; ifx++) {
            add(ifx, false);
        }
    }
    for (uint32_t ifx : access) {
        add(ifx, false);
    }
    for (uint32_t ifx : uplinks.empty() ? std::set{default_uplink} : uplinks) {
        add(ifx, true);
    }
    std::vector<host::SwitchPort> list;
    list.reserve(all.size());
    for (const auto &[ifx, port] : all) {
        list.push_back(port);
    }
    return list;
}

std::span<const CommandRow> declaration_commands()
{
    return rows;
}

std::span<const ArgumentType> declaration_types()
{
    return types;
}

bool read_scenario(const std::string &path, Grammar &grammar, Scenario &scenario, std::string &why)
{
    Scenario read;
    read.path = path;
    grammar.ports = host::operator_ports(read.ports());
    bool is_empty = true;
    auto take = [&](unsigned number, const std::string &line, std::string &reason) {
        is_empty = false;
        return add_line(line, number, grammar, read, reason);
    };
    if (!for_each_line(path, take, why)) {
        return false;
    }
    if (is_empty) {
        why = path + ": is empty";
        return false;
    }
    scenario = std::move(read);
    return true;
}

} // namespace vvl::sim
