// A row takes its subject out of both snapshots: of a listing only the lines or
// columns concerned, so that the rest of it is still compared.
#include "tests/fault/rules.h"

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

void clear(Snapshot &snapshot, const char *subject)
{
    snapshot.at(subject).clear();
}

void clear_reports(Snapshot &snapshot, const Ports &)
{
    clear(snapshot, "p_bridge.vvlan_err_event");
}

void clear_packet_registration(Snapshot &snapshot, const Ports &)
{
    clear(snapshot, "s_cluster.reg_pkt_info");
}

void clear_mirrored_ouis(Snapshot &snapshot, const Ports &)
{
    clear(snapshot, "u_bridge.vvlan_oui_cfg");
}

// Removes the lines in which the number behind mark is an automatic port.
void erase_ports(std::vector<std::string> &lines, const std::string &mark, const Ports &ports)
{
    std::erase_if(lines, [&](const std::string &line) {
        const size_t at = line.find(mark);
        return at != std::string::npos &&
               ports.contains(static_cast<uint32_t>(std::strtoul(line.c_str() + at + mark.size(), nullptr, 10)));
    });
}

void clear_join_objects(Snapshot &snapshot, const Ports &ports)
{
    for (const char *subject : {"p_bridge.vvlan_port_auto", "u_bridge.vvlan_join", "u_bridge.vvlan_port_cfg"}) {
        erase_ports(snapshot.at(subject), "", ports);
    }
    erase_ports(snapshot.at("dump_recover_entry"), "ifx = ", ports);
}

void clear_orphaned_entries(Snapshot &snapshot, const Ports &)
{
    const Ports known = ports_of(snapshot, false);
    std::erase_if(snapshot.at("dump_recover_entry"), [&](const std::string &line) {
        uint32_t ifx = 0;
        return std::sscanf(line.c_str(), "ifx = %u", &ifx) == 1 && !known.contains(ifx);
    });
}

// Keeps number, mode, physical id and status of an automatic port.
void clear_join_bits(Snapshot &snapshot, const Ports &ports)
{
    for (std::string &line : snapshot.at("dump_all_port")) {
        PortRow row;
        if (read_port_row(line, row) && ports.contains(row.ifx)) {
            line.erase(std::min(line.size(), line.find("ABLE")));
        }
    }
}

// The security ACL is bound to an automatic port whether or not it has joined.
void clear_join_bindings(Snapshot &snapshot, const Ports &ports)
{
    std::vector<std::string> &lines = snapshot.at("plane bindings");
    for (std::string &line : lines) {
        uint32_t phyid = 0;
        uint32_t acls = 0;
        const bool read = std::sscanf(line.c_str(), "phyid %u acls %u", &phyid, &acls) == 2;
        if (read && std::any_of(ports.begin(), ports.end(), [&](const auto &port) { return port.second == phyid; })) {
            line =
                "phyid " + std::to_string(phyid) + " security " + std::to_string(acls & fp::acl_bit(fp::Acl::security));
        }
    }
}

void clear_learned_macs(Snapshot &snapshot, const Ports &ports)
{
    erase_ports(snapshot.at("dump_all_mac"), "ifx:", ports);
}

void clear_ace_ids(Snapshot &snapshot, const Ports &)
{
    for (const char *subject : {"plane mac_vlan", "plane voice"}) {
        std::vector<std::string> &lines = snapshot.at(subject);
        for (std::string &line : lines) {
            line.erase(0, std::min(line.size(), line.find("mac ")));
        }
        std::sort(lines.begin(), lines.end());
    }
}

bool is_off(const Snapshot &snapshot)
{
    const std::vector<std::string> &lines = snapshot.at("dump_glbal_configure");
    return std::any_of(lines.begin(), lines.end(),
                       [](const std::string &line) { return line.find("DISABLE") != std::string::npos; });
}

void clear_idle_rules(Snapshot &snapshot, const Ports &)
{
    if (is_off(snapshot)) {
        for (const char *subject : {"plane mac_vlan", "plane voice", "plane security"}) {
            clear(snapshot, subject);
        }
    }
}

void clear_idle_registration(Snapshot &snapshot, const Ports &)
{
    if (is_off(snapshot)) {
        clear(snapshot, "u_bridge.mac_vid_reg");
    }
}

struct Rule {
    Ending last; // the last ending after which it may differ
    void (*clear)(Snapshot &snapshot, const Ports &automatic);
};

constexpr Rule rules[] = {
    // The report of the fault itself: nobody withdraws a report.
    {Ending::next_calls, clear_reports},
    // Written by the first initialisation, once.
    {Ending::reinitialisation, clear_packet_registration},
    // Written when an OUI enters the table. A re-initialisation sweeps the
    // record of an OUI that is there already, and not that of one that it adds.
    {Ending::reinitialisation, clear_mirrored_ouis},
    // Given to OUIs in the order in which they enter the table; the next one to
    // enter takes an id that a failed one has not used.
    {Ending::reinitialisation, clear_ace_ids},
    // Read back before the port configurations, so a deleted port's entry is
    // there until the re-initialisation after the one that swept its object.
    {Ending::reinitialisation, clear_orphaned_entries},
    // An automatic port joins with a voice frame. A join that failed, or whose
    // objects were lost, is made by the next frame; one that failed in part has
    // all its objects again when the port has left and joins anew.
    {Ending::restart, clear_join_objects},
    {Ending::restart, clear_join_bits},
    {Ending::restart, clear_join_bindings},
    // Learned from the device's next frame in the voice VLAN.
    {Ending::restart, clear_learned_macs},
    // An OUI brings its rules with it, while the voice VLAN is off too; switching
    // it off takes away those that are there. Nothing is bound meanwhile.
    {Ending::reinitialisation, clear_idle_rules},
    // A registration that could not be withdrawn is swept by the cycle of the
    // next subscription, and while the voice VLAN is off there is none.
    {Ending::restart, clear_idle_registration},
};

} // namespace

void remove_allowed_differences(Ending ending, Snapshot &expected, Snapshot &found)
{
    const Ports automatic = ports_of(expected, true);
    for (const Rule &rule : rules) {
        if (ending <= rule.last) {
            rule.clear(expected, automatic);
            rule.clear(found, automatic);
        }
    }
}

} // namespace vvl::fault
