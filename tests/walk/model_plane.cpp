#include "tests/walk/model_plane.h"

namespace vvl::walk
{
namespace
{

bool in_range(const fp::Rule &rule)
{
    const bool tag_is_good = !rule.add_tag || (rule.tag_vid >= 1 && rule.tag_vid <= fp::vid_max);
    return rule.vid <= fp::vid_max && rule.cos <= fp::cos_max && rule.dscp <= fp::dscp_max &&
           rule.prio <= fp::cos_max && tag_is_good;
}

} // namespace

void ModelPlane::set_acl(fp::Acl acl)
{
    at(acl).present = true;
    at(acl).marked = false;
}

void ModelPlane::set_ace(fp::Acl acl, const fp::Rule &rule)
{
    if (at(acl).present && in_range(rule)) {
        at(acl).aces[rule.id] = {rule, false};
    }
}

void ModelPlane::bind(fp::Acl acl, uint32_t phyid)
{
    if (at(acl).present) {
        at(acl).bindings[phyid] = false;
    }
}

void ModelPlane::mark_all()
{
    for (AclState &acl : acls_) {
        acl.marked = true;
        for (auto &ace : acl.aces) {
            ace.second.marked = true;
        }
        for (auto &binding : acl.bindings) {
            binding.second = true;
        }
    }
}

void ModelPlane::sweep()
{
    for (AclState &acl : acls_) {
        if (acl.marked) {
            acl = {};
        }
        std::erase_if(acl.aces, [](const auto &ace) { return ace.second.marked; });
        std::erase_if(acl.bindings, [](const auto &binding) { return binding.second; });
    }
}

void ModelPlane::print(Page &page) const
{
    std::map<uint32_t, uint8_t> bound;
    for (size_t i = 0; i < fp::acl_count; i++) {
        for (const auto &ace : acls_[i].aces) {
            print_rule(page, i, ace.second.rule);
        }
        for (const auto &binding : acls_[i].bindings) {
            bound[binding.first] |= fp::acl_bit(static_cast<fp::Acl>(i));
        }
    }
    for (const auto &[phyid, acls] : bound) {
        print_binding(page, phyid, acls);
    }
}

void print_rule(Page &page, size_t acl, const fp::Rule &rule)
{
    page.line("ace").number(acl).number(rule.id).mac(rule.mac).mac(rule.mask);
    page.number(rule.vid).number(rule.vid_mask).number(rule.form).number(rule.form_mask).number(rule.drop);
    page.number(rule.set_cos).number(rule.cos).number(rule.set_dscp).number(rule.dscp);
    page.number(rule.set_prio).number(rule.prio).number(rule.add_tag).number(rule.tag_vid);
}

void print_binding(Page &page, uint32_t phyid, uint8_t acls)
{
    page.line("binding").number(phyid).number(acls);
}

} // namespace vvl::walk
