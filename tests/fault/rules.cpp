// Where a run with a fault may end in another state than one without: a row for
// each difference that the module's contract allows, with its reason. Whatever
// has no row has to be equal after each ending.
//
// A row takes its subject out of both snapshots: of a listing only the lines or
// columns concerned, so that the rest of it is still compared.
#include "tests/fault/snapshot.h"

#include "platform/fp/rule.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>

namespace vvl::fault
{
namespace
{

// Ports of a switch, ifx to phyid.
using Ports = std::map<uint32_t, uint32_t>;

struct PortRow {
    uint32_t ifx = 0;
    uint32_t phyid = 0;
    char mode[16] = "";
};

bool read_port_row(const std::string &line, PortRow &row)
{
    return std::sscanf(line.c_str(), " ifx:%u %15s 0x%x", &row.ifx, row.mode, &row.phyid) == 3;
}

// The ports that the module has a record of; only the automatic ones.
Ports ports_of(const Snapshot &snapshot, bool only_automatic)
{
    Ports ports;
    for (const std::string &line : snapshot.at("dump_all_port")) {
        PortRow row;
        if (read_port_row(line, row) && (!only_automatic || std::string(row.mode) == "AUTO")) {
            ports[row.ifx] = row.phyid;
        }
    }
    return ports;
}

// Removes the lines in which the number behind mark is one of the ports, or is none of them.
void erase_ports(std::vector<std::string> &lines, const std::string &mark, const Ports &ports, bool others = false)
{
    std::erase_if(lines, [&](const std::string &line) {
        const size_t at = line.find(mark);
        return at != std::string::npos &&
               ports.contains(static_cast<uint32_t>(std::strtoul(line.c_str() + at + mark.size(), nullptr, 10))) !=
                   others;
    });
}

// ---- What a row takes out of a subject's lines ----

using Lines = std::vector<std::string>;

void clear(Lines &lines, const Snapshot &, const Ports &)
{
    lines.clear();
}

void clear_while_off(Lines &lines, const Snapshot &snapshot, const Ports &)
{
    const Lines &settings = snapshot.at("dump_glbal_configure");
    if (std::ranges::any_of(settings, [](const std::string &line) { return line.find("DISABLE") != line.npos; })) {
        lines.clear();
    }
}

template <const char *mark> void clear_automatic(Lines &lines, const Snapshot &, const Ports &automatic)
{
    erase_ports(lines, mark, automatic);
}

template <const char *mark> void clear_orphaned(Lines &lines, const Snapshot &snapshot, const Ports &)
{
    erase_ports(lines, mark, ports_of(snapshot, false), true);
}

// Keeps number, mode, physical id and status of an automatic port.
void clear_join_bits(Lines &lines, const Snapshot &, const Ports &automatic)
{
    for (std::string &line : lines) {
        PortRow row;
        if (read_port_row(line, row) && automatic.contains(row.ifx)) {
            line.erase(std::min(line.size(), line.find("ABLE")));
        }
    }
}

// The security ACL is bound to an automatic port whether or not it has joined.
void clear_join_bindings(Lines &lines, const Snapshot &, const Ports &automatic)
{
    for (std::string &line : lines) {
        uint32_t phyid = 0;
        uint32_t acls = 0;
        if (std::sscanf(line.c_str(), "phyid %u acls %u", &phyid, &acls) == 2 &&
            std::any_of(automatic.begin(), automatic.end(), [&](const auto &port) { return port.second == phyid; })) {
            acls &= fp::acl_bit(fp::Acl::security);
            line = "phyid " + std::to_string(phyid) + " security " + std::to_string(acls);
        }
    }
}

void clear_ace_ids(Lines &lines, const Snapshot &, const Ports &)
{
    for (std::string &line : lines) {
        line.erase(0, std::min(line.size(), line.find("mac ")));
    }
    std::sort(lines.begin(), lines.end());
}

constexpr char whole_line[] = "";
constexpr char entry_mark[] = "ifx = ";
constexpr char mac_mark[] = "ifx:";

struct Rule {
    Ending last; // the last ending after which it may differ
    const char *subject;
    void (*clear)(Lines &lines, const Snapshot &whole, const Ports &automatic);
};

constexpr Rule rules[] = {
    // The report of the fault itself: nobody withdraws a report.
    {Ending::next_calls, "p_bridge.vvlan_err_event", clear},
    // Written by the first initialisation, once.
    {Ending::reinitialisation, "s_cluster.reg_pkt_info", clear},
    // Written when an OUI enters the table. A re-initialisation sweeps the
    // record of an OUI that is there already, and not that of one that it adds.
    {Ending::reinitialisation, "u_bridge.vvlan_oui_cfg", clear},
    // Given to OUIs in the order in which they enter the table; the next one to
    // enter takes an id that a failed one has not used.
    {Ending::reinitialisation, "plane mac_vlan", clear_ace_ids},
    {Ending::reinitialisation, "plane voice", clear_ace_ids},
    // Read back before the port configurations, so a deleted port's entry is
    // there until the re-initialisation after the one that swept its object.
    {Ending::reinitialisation, "dump_recover_entry", clear_orphaned<entry_mark>},
    // An automatic port joins with a voice frame. A join that failed, or whose
    // objects were lost, is made by the next frame; one that failed in part has
    // all its objects again when the port has left and has joined again.
    {Ending::restart, "p_bridge.vvlan_port_auto", clear_automatic<whole_line>},
    {Ending::restart, "u_bridge.vvlan_join", clear_automatic<whole_line>},
    {Ending::restart, "u_bridge.vvlan_port_cfg", clear_automatic<whole_line>},
    {Ending::restart, "dump_recover_entry", clear_automatic<entry_mark>},
    {Ending::restart, "dump_all_port", clear_join_bits},
    {Ending::restart, "plane bindings", clear_join_bindings},
    // Learned from the device's next frame in the voice VLAN.
    {Ending::restart, "dump_all_mac", clear_automatic<mac_mark>},
    // An OUI brings its rules with it, even while the voice VLAN is off; switching
    // it off removes those that are there. Nothing is bound meanwhile.
    {Ending::reinitialisation, "plane mac_vlan", clear_while_off},
    {Ending::reinitialisation, "plane voice", clear_while_off},
    {Ending::reinitialisation, "plane security", clear_while_off},
    // A registration that could not be withdrawn is swept by the cycle of the
    // next subscription, and while the voice VLAN is off there is none.
    {Ending::restart, "u_bridge.mac_vid_reg", clear_while_off},
};

} // namespace

void remove_allowed_differences(Ending ending, Snapshot &expected, Snapshot &found)
{
    const Ports automatic = ports_of(expected, true);
    for (const Rule &rule : rules) {
        if (ending <= rule.last) {
            for (Snapshot *snapshot : {&expected, &found}) {
                rule.clear(snapshot->at(rule.subject), *snapshot, automatic);
            }
        }
    }
}

} // namespace vvl::fault
