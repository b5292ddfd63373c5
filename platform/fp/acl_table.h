// What applications have installed: ACLs with their ACEs and bindings, each
// with its expiry mark, and the forwarding state that follows from them.
#pragma once

#include "platform/fp/plane.h"

#include <array>
#include <cstdint>
#include <map>

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

struct AclEntry {
    bool present = false;
    bool marked = false;
    uint32_t id = 0;
    std::map<uint64_t, AceEntry> aces; // by ACE id
    std::map<uint32_t, bool> bindings; // phyid -> marked
};

// A plain value: a request is worked out on a copy, so that a refusal leaves
// nothing to undo.
struct AclTable {
    std::array<AclEntry, acl_count> acls; // by Acl; an app type holds one ACL at a time

    AclEntry &at(Acl acl) { return acls[static_cast<size_t>(acl)]; }
    const AclEntry &at(Acl acl) const { return acls[static_cast<size_t>(acl)]; }
    bool empty() const;
    void mark(Acl acl, Kind kind);
    void sweep(Acl acl, Kind kind); // removes what is marked
    PlaneState state() const;
};

// Takes a plane from one state to another with the narrowest operation that
// does it in one step; none where they are equal. Returns the plane's result.
int carry_out(Plane &plane, const PlaneState &from, const PlaneState &to);

} // namespace vvl::fp
