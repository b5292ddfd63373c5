// The order of the ACLs. The MAC-VLAN ACL sees the frame as it is on the wire
// and decides the VLAN; the others see the VLAN that results from it. A frame
// that a tag has put into a VLAN stays there, whatever the MAC-VLAN ACL says;
// whether its port is in that VLAN is asked first.
//
// The internal priority has no effect here: frames leave this plane at once,
// there is no queue to choose.
#include "platform/fp/soft/pipeline.h"

namespace vvl::fp
{
namespace
{

void decide_vlan(const Classifier &acl, std::vector<uint8_t> &frame, FrameHeader &header, Verdict &verdict)
{
    if (header.in_tagged_vlan()) {
        return;
    }
    const Rule *rule = acl.find(header.source, header.vid, static_cast<uint8_t>(header.form()));
    if (rule && rule->add_tag) {
        add_tag(frame, header, rule->tag_vid);
        verdict.tagged = true;
    }
}

// A voice device is never judged by the security ACL: that one is asked only
// where the voice ACL has no rule for the frame.
const Rule *find_rule(const AclSet &set, uint8_t bound, const FrameHeader &header, uint16_t vlan)
{
    for (Acl acl : {Acl::voice, Acl::security}) {
        if (bound & acl_bit(acl)) {
            if (const Rule *rule = set.at(acl).find(header.source, vlan, static_cast<uint8_t>(header.form()))) {
                return rule;
            }
        }
    }
    return nullptr;
}

// Whether the frame's tag names the voice VLAN and the port is not in it.
bool is_filtered(const AclSet &set, const PortPolicy &port, const FrameHeader &header)
{
    constexpr uint8_t member = acl_bit(Acl::mac_vlan) | acl_bit(Acl::voice);
    return header.in_tagged_vlan() && header.vid == set.at(Acl::security).vlan() && header.vid != port.pvid &&
           !port.uplink && (port.bound & member) == 0;
}

} // namespace

Verdict run_acls(const AclSet &set, const PortPolicy &port, std::vector<uint8_t> &frame, FrameHeader &header)
{
    Verdict verdict;
    verdict.vlan = header.in_tagged_vlan() ? header.vid : port.pvid;
    verdict.reserved = is_reserved(header.destination);
    if (verdict.reserved) {
        return verdict;
    }
    verdict.drop = is_filtered(set, port, header);
    if (verdict.drop) {
        return verdict;
    }
    if (port.bound & acl_bit(Acl::mac_vlan)) {
        decide_vlan(set.at(Acl::mac_vlan), frame, header, verdict);
        verdict.vlan = header.in_tagged_vlan() ? header.vid : port.pvid;
    }
    const Rule *rule = find_rule(set, port.bound, header, verdict.vlan);
    if (!rule) {
        return verdict;
    }
    if (rule->drop) {
        verdict.drop = true;
        return verdict;
    }
    if (rule->set_cos) {
        verdict.remarked |= set_cos(frame, header, rule->cos);
    }
    if (rule->set_dscp) {
        verdict.remarked |= set_dscp(frame, header, rule->dscp);
    }
    return verdict;
}

} // namespace vvl::fp
