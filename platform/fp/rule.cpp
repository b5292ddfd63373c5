#include "platform/fp/rule.h"

#include "fp_udp.h"

#include <algorithm>

namespace vvl::fp
{
namespace
{

const char *fault_of(const Rule &rule)
{
    if (rule.id > FP_UDP_ACE_COUNT_MAX) {
        static_assert(FP_UDP_ACE_COUNT_MAX == 127);
        return "id is out of range (1 to 127)";
    }
    if (rule.cos > cos_max || rule.prio > cos_max) {
        return "priority is out of range (0 to 7)";
    }
    if (rule.dscp > dscp_max) {
        return "DSCP is out of range (0 to 63)";
    }
    if (rule.vid > vid_max || rule.tag_vid > vid_max || (rule.add_tag && rule.tag_vid == 0)) {
        return "VLAN id is out of range";
    }
    return nullptr;
}

} // namespace

bool check_rules(std::span<const Rule> rules, std::string &why)
{
    if (rules.size() > FP_UDP_ACE_COUNT_MAX) {
        why = std::to_string(rules.size()) + " rules are more than an ACL holds";
        return false;
    }
    uint64_t last_id = 0;
    for (const Rule &rule : rules) {
        const char *fault = rule.id > last_id ? fault_of(rule) : "id is not above the one before";
        if (fault) {
            why = "rule " + std::to_string(rule.id) + ": " + fault;
            return false;
        }
        last_id = rule.id;
    }
    return true;
}

bool check_state(const PlaneState &state, std::string &why)
{
    return std::ranges::all_of(state.rules, [&](const std::vector<Rule> &rules) { return check_rules(rules, why); });
}

} // namespace vvl::fp
