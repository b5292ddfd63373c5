// The store is read through a session of its own, so that neither the module's
// connections nor its counters notice it. The dumps print to C's standard
// output, which is a stream in memory meanwhile. Their row numbers are cut off,
// since they count the order of arrival.
#include "tests/fault/snapshot.h"

#include "platform/mom/store.h"
#include "tests/support/message_text.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <sstream>
#include <utility>

namespace vvl::fault
{
namespace
{

// Everything that the module writes.
constexpr struct {
    uint32_t db;
    const char *type;
} written_types[] = {
    {4, "p_bridge.vvlan_port_auto"}, {4, "p_bridge.vvlan_err_event"}, {0, "s_cluster.reg_pkt_info"},
    {8, "u_bridge.vvlan_join"},      {8, "u_bridge.vvlan_port_cfg"},  {8, "u_bridge.vvlan_oui_cfg"},
    {6, "u_bridge.mac_vid_reg"},
};

constexpr const char *listings[] = {"dump_glbal_configure", "dump_all_oui", "dump_all_port", "dump_all_mac",
                                    "dump_recover_entry"};

struct Deaf final : mom::SessionEvents {
    void link_lost(uint32_t) override {}
    void link_back(uint32_t, bool) override {}
    void changed(const mom::Change &) override {}
};

std::string hexadecimal(const std::string &bytes)
{
    return test::to_hex(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

std::string object_text(const mom::Object &object)
{
    std::string text = object.key + " = " + hexadecimal(object.value.bytes);
    for (const auto &[number, field] : object.value.fields) {
        text += " " + std::to_string(number) + ":" + hexadecimal(field);
    }
    return text;
}

void add_objects(host::Switch &network_switch, Snapshot &snapshot)
{
    Deaf deaf;
    auto session = network_switch.store().open(network_switch.loop(), deaf, "snapshot");
    for (const auto &row : written_types) {
        std::vector<mom::Object> objects;
        std::vector<std::string> &lines = snapshot[row.type];
        if (session->connect_now(row.db) != 0 || session->scan_now(row.db, row.type, objects) != 0) {
            lines.emplace_back("cannot be read");
        }
        std::transform(objects.begin(), objects.end(), std::back_inserter(lines), object_text);
    }
}

// What print writes to standard output.
template <typename Print> std::string printed(Print print)
{
    char *text = nullptr;
    size_t size = 0;
    std::FILE *terminal = std::exchange(stdout, open_memstream(&text, &size));
    print();
    std::fclose(std::exchange(stdout, terminal));
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    return {text, size};
}

void add_listing(host::Agent &agent, const std::string &name, Snapshot &snapshot)
{
    std::string why;
    std::istringstream text(printed([&] { agent.run_debug_command(name, "", why); }));
    std::vector<std::string> &lines = snapshot[name];
    if (!why.empty()) {
        lines.push_back(why);
    }
    for (std::string line; std::getline(text, line);) {
        const size_t number_end = line.find("> ");
        const bool numbered = line.starts_with("  <") && number_end != std::string::npos;
        lines.push_back(line.substr(numbered ? number_end + 2 : 0));
    }
}

std::string rule_text(const fp::Rule &rule)
{
    char text[256];
    std::snprintf(text, sizeof text,
                  "ace %" PRIu64 " mac %s/%s vid %u/%x form %u/%x drop %d cos %d:%u dscp %d:%u prio %d:%u tag %d:%u",
                  rule.id, to_text(rule.mac).c_str(), to_text(rule.mask).c_str(), unsigned{rule.vid},
                  unsigned{rule.vid_mask}, unsigned{rule.form}, unsigned{rule.form_mask}, rule.drop, rule.set_cos,
                  unsigned{rule.cos}, rule.set_dscp, unsigned{rule.dscp}, rule.set_prio, unsigned{rule.prio},
                  rule.add_tag, unsigned{rule.tag_vid});
    return text;
}

void add_plane(const fp::PlaneState &state, Snapshot &snapshot)
{
    static constexpr const char *names[fp::acl_count] = {"plane mac_vlan", "plane voice", "plane security"};
    for (size_t acl = 0; acl < fp::acl_count; acl++) {
        std::vector<std::string> &lines = snapshot[names[acl]];
        std::transform(state.rules[acl].begin(), state.rules[acl].end(), std::back_inserter(lines), rule_text);
    }
    std::vector<std::string> &lines = snapshot["plane bindings"];
    for (const auto &[phyid, acls] : state.binding) {
        lines.push_back("phyid " + std::to_string(phyid) + " acls " + std::to_string(acls));
    }
}

std::string only_in(const std::vector<std::string> &lines, const std::vector<std::string> &other, const char *mark)
{
    std::vector<std::string> rest;
    std::set_difference(lines.begin(), lines.end(), other.begin(), other.end(), std::back_inserter(rest));
    std::string text;
    for (const std::string &line : rest) {
        text += mark + line + "\n";
    }
    return text;
}

} // namespace

Snapshot take_snapshot(host::Switch &network_switch)
{
    Snapshot snapshot;
    add_objects(network_switch, snapshot);
    for (const char *name : listings) {
        add_listing(network_switch.agent(), name, snapshot);
    }
    add_plane(network_switch.manager().desired(), snapshot);
    for (auto &[subject, lines] : snapshot) {
        std::sort(lines.begin(), lines.end());
    }
    return snapshot;
}

std::map<std::string, std::string> differences(const Snapshot &expected, const Snapshot &found)
{
    std::map<std::string, std::string> result;
    for (const auto &[subject, lines] : expected) {
        const std::vector<std::string> &other = found.at(subject);
        if (lines != other) {
            result[subject] = only_in(lines, other, "    - ") + only_in(other, lines, "    + ");
        }
    }
    return result;
}

} // namespace vvl::fault
