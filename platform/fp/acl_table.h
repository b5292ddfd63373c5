// What applications have installed: ACLs with their ACEs and bindings, each
// with its expiry mark, and the forwarding state that follows from them.
#pragma once

#include "platform/fp/rule.h"

#include <array>
#include <cstdint>
#include <vector>

namespace vvl::fp
{

// Ports that one ACL may be bound to; a binding beyond is refused.
constexpr size_t bindings_max = 4096;

// What is marked and swept together, per app type.
enum class Kind : uint8_t { acl, ace, binding };
constexpr size_t kind_count = 3;

struct AceEntry {
    Rule rule;
    bool marked = false;
};

struct Binding {
    uint32_t phyid = 0;
    bool marked = false;
};

// Its rows are in plain arrays, so that a copy of the table, which is made each
// time the plane has taken it, costs microseconds even with thousands of ports.
struct AclEntry {
    bool present = false;
    bool marked = false;
    uint32_t id = 0;
    std::vector<AceEntry> aces;    // ascending ACE id
    std::vector<Binding> bindings; // ascending phyid

    // Each clears the mark of what it sets; what is absent is removed without an error.
    void set_ace(const Rule &rule);
    void remove_ace(uint64_t id);
    // Returns false, with nothing changed, where bindings_max ports are bound.
    bool bind(uint32_t phyid);
    void unbind(uint32_t phyid);
};

struct AclTable {
    std::array<AclEntry, acl_count> acls; // by Acl; an app type holds one ACL at a time

    AclEntry &at(Acl acl) { return acls[static_cast<size_t>(acl)]; }
    const AclEntry &at(Acl acl) const { return acls[static_cast<size_t>(acl)]; }
    bool empty() const;
    void mark(Acl acl, Kind kind);
    void sweep(Acl acl, Kind kind); // removes what is marked
    PlaneState state() const;
};

} // namespace vvl::fp
