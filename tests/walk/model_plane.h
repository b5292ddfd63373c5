// What a forwarding plane holds, beside what of it was set since the restart:
// that is what a sweep leaves. Keeps to the plane's contract: what is out of
// range or for an ACL that is not there changes nothing.
#pragma once

#include "tests/walk/page.h"

#include <array>
#include <map>
#include <set>

namespace vvl::walk
{

class ModelPlane
{
  public:
    void set_acl(fp::Acl acl) { held(acl).present = renewed(acl).present = true; }
    void delete_acl(fp::Acl acl) { held(acl) = renewed(acl) = {}; }
    void set_ace(fp::Acl acl, const fp::Rule &rule)
    {
        std::string why;
        if (held(acl).present && fp::check_rules({&rule, 1}, why)) {
            held(acl).aces[rule.id] = renewed(acl).aces[rule.id] = rule;
        }
    }
    void delete_ace(fp::Acl acl, uint64_t id)
    {
        held(acl).aces.erase(id);
        renewed(acl).aces.erase(id);
    }
    void bind(fp::Acl acl, uint32_t phyid, bool on)
    {
        for (AclState *state : {&held(acl), &renewed(acl)}) {
            if (!on) {
                state->bindings.erase(phyid);
            } else if (held(acl).present) {
                state->bindings.insert(phyid);
            }
        }
    }
    void mark_all() { renewed_ = {}; }
    void sweep()
    {
        for (AclState &acl : renewed_) {
            acl = acl.present ? acl : AclState{};
        }
        held_ = renewed_;
    }
    void print(Page &page) const
    {
        std::map<uint32_t, uint8_t> bound;
        for (size_t i = 0; i < fp::acl_count; i++) {
            for (const auto &ace : held_[i].aces) {
                print_rule(page, i, ace.second);
            }
            for (const uint32_t phyid : held_[i].bindings) {
                bound[phyid] |= fp::acl_bit(static_cast<fp::Acl>(i));
            }
        }
        for (const auto &[phyid, acls] : bound) {
            page.line("binding", phyid, acls);
        }
    }

  private:
    struct AclState {
        bool present = false;
        std::map<uint64_t, fp::Rule> aces;
        std::set<uint32_t> bindings; // phyids
    };
    using State = std::array<AclState, fp::acl_count>;
    AclState &held(fp::Acl acl) { return held_[static_cast<size_t>(acl)]; }
    AclState &renewed(fp::Acl acl) { return renewed_[static_cast<size_t>(acl)]; }

    State held_;
    State renewed_;
};

} // namespace vvl::walk
