// What a forwarding plane holds: ACLs, their ACEs and bindings, each with the
// mark of a restart. Keeps to the plane's contract: what is out of range or
// for an ACL that is not there changes nothing.
#pragma once

#include "platform/fp/rule.h"
#include "tests/walk/page.h"

#include <cstdint>
#include <map>

namespace vvl::walk
{

class ModelPlane
{
  public:
    void set_acl(fp::Acl acl);
    void delete_acl(fp::Acl acl) { at(acl) = {}; }
    void set_ace(fp::Acl acl, const fp::Rule &rule);
    void delete_ace(fp::Acl acl, uint64_t id) { at(acl).aces.erase(id); }
    void bind(fp::Acl acl, uint32_t phyid);
    void unbind(fp::Acl acl, uint32_t phyid) { at(acl).bindings.erase(phyid); }
    void mark_all();
    void sweep();
    void print(Page &page) const;

  private:
    struct Ace {
        fp::Rule rule;
        bool marked = false;
    };
    struct AclState {
        bool present = false;
        bool marked = false;
        std::map<uint64_t, Ace> aces;
        std::map<uint32_t, bool> bindings; // phyid -> marked
    };
    AclState &at(fp::Acl acl) { return acls_[static_cast<size_t>(acl)]; }

    AclState acls_[fp::acl_count];
};

// One line; acl is the index of an fp::Acl.
void print_rule(Page &page, size_t acl, const fp::Rule &rule);

// One line; acls: acl_bit()s.
void print_binding(Page &page, uint32_t phyid, uint8_t acls);

} // namespace vvl::walk
