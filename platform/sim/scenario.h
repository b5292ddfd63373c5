// A scenario, which is read and checked completely before it runs.
#pragma once

#include "platform/host/switch.h"
#include "platform/operator/command.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace vvl::sim
{

constexpr uint32_t scenario_port_count_max = 1024;

struct ScenarioStep {
    size_t line;      // from 1
    std::string text; // without comment and extra spaces
    oper::Command command;
};

struct Scenario {
    std::string path;
    std::set<uint32_t> access;           // declared ports; empty: 1 to 8
    std::set<uint32_t> uplinks;          // declared uplinks; empty: 24
    std::map<uint32_t, uint32_t> phyids; // ifx -> phyid, where declared; others: 0x100 + ifx
    std::vector<ScenarioStep> steps;

    // All declared ports, by ascending ifx.
    std::vector<host::SwitchPort> ports() const;
};

// The declaration rows (CommandContext::scenario).
std::span<const oper::CommandRow> declaration_commands();
std::span<const oper::ArgumentType> declaration_types();

// Reads the file. grammar has the rows; the call sets its ports. On
// failure why is "FILE:LINE: reason" or, for the whole file, "FILE: reason".
bool read_scenario(const std::string &path, oper::Grammar &grammar, Scenario &scenario, std::string &why);

} // namespace vvl::sim
